// Byte sinks written by the channel layer when it receives data.
#pragma once

#include <cstddef>

#include <scpkit/base/VostrelObject.h>

namespace scpkit {

class DataBuffer;
class LogBase;
class ProgressMonitor;
class VostrelFileTime;

class _vqOutput : public VostrelObject {
  public:
    // Writes all bytes; when m_reportsProgress is set and a monitor is
    // given, counts them into it. False on a write error or when the
    // monitor reports an abort.
    bool writeBytes(const unsigned char* data, size_t numBytes, ProgressMonitor* pm, LogBase& log);
    // Makes the sink clean before it is reused.
    virtual void resetOutput(LogBase& log) = 0;
    // Told before numBytes are written, so that a sink in memory can make
    // room once instead of growing (and copying) step by step.
    virtual void expectBytes(long long numBytes) { (void)numBytes; }

    bool m_reportsProgress = false;

  protected:
    virtual bool writeImpl(const unsigned char* data, size_t numBytes, LogBase& log) = 0;
};

// Appends every write to a DataBuffer (reset clears it).
class OutputDataBuffer : public _vqOutput {
  public:
    explicit OutputDataBuffer(DataBuffer* buffer) : m_buffer(buffer) {}
    void resetOutput(LogBase& log) override;
    void expectBytes(long long numBytes) override;

  protected:
    bool writeImpl(const unsigned char* data, size_t numBytes, LogBase& log) override;

  private:
    DataBuffer* m_buffer;
};

class OutputFile : public _vqOutput {
  public:
    // Creates or truncates a local file for writing; null with the reason
    // logged. A path naming something other than a regular file (a device,
    // a fifo) is opened for writing as it is, never truncated.
    static OutputFile* createFileUtf8(const char* path, LogBase& log);
    ~OutputFile() override;

    // True when what was opened is a regular file: only then do its size,
    // times and mode belong to the download.
    bool isRegularFile() const { return m_regular; }

    // Sets the open file's times: (creation, last access, last modification).
    // The creation time is ignored where the platform keeps none; on
    // anything but a regular file nothing is changed.
    bool setFileTimeUtc_3(const VostrelFileTime& creation, const VostrelFileTime& lastAccess,
                          const VostrelFileTime& lastMod, LogBase* log);
    void closeHandle();
    void resetOutput(LogBase& log) override;  // a regular file: truncates to 0 bytes

  protected:
    bool writeImpl(const unsigned char* data, size_t numBytes, LogBase& log) override;

  private:
    OutputFile(int fd, bool regular) : m_fd(fd), m_regular(regular) {}
    int m_fd;
    bool m_regular;
};

// Deletes the output at scope exit.
class OutputOwner {
  public:
    explicit OutputOwner(_vqOutput* out = nullptr) : m_out(out) {}
    ~OutputOwner() { delete m_out; }
    OutputOwner(const OutputOwner&) = delete;
    OutputOwner& operator=(const OutputOwner&) = delete;
    void own(_vqOutput* out) {
        delete m_out;
        m_out = out;
    }

  private:
    _vqOutput* m_out;
};

}  // namespace scpkit
