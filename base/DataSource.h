// Byte sources read by the channel layer when it sends data.
#pragma once

#include <cstddef>
#include <cstdint>

#include <scpkit/base/DataBuffer.h>

namespace scpkit {

class LogBase;
class VostrelFileTime;
class XString;

class _vqDataSource {
  public:
    virtual ~_vqDataSource() = default;

    // Reads up to maxBytes into buf; numRead 0 means the end. False on error.
    virtual bool readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead,
                                 LogBase& log) = 0;
    // A source whose bytes are in memory already lends the next ones
    // instead of copying them (numRead as above; valid until the next call).
    // False: this source only copies.
    virtual bool lendSourceChunk(const unsigned char*& data, size_t maxBytes, size_t& numRead) {
        (void)data, (void)maxBytes, (void)numRead;
        return false;
    }

    // When set, the bytes sent from this source count into the call's
    // progress monitor. Uploads set it just before they stream.
    bool m_reportsProgress = false;
};

class _vqFileDataSource : public _vqDataSource {
  public:
    ~_vqFileDataSource() override;

    // Opens a regular file for reading (anything else is refused, with the
    // reason logged).
    bool openDataSourceFile(const XString& path, LogBase& log);
    int64_t getFileSize64(LogBase* log);
    // Times at whole-second resolution; false when the file is not open.
    bool getFileTime(VostrelFileTime& creation, VostrelFileTime& lastAccess,
                     VostrelFileTime& lastMod);
    // The low twelve mode bits; false (perms untouched) when not available.
    bool getUnixModePerms(unsigned& perms, LogBase& log);
    void closeFile();

    bool readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead,
                         LogBase& log) override;

  private:
    int m_fd = -1;
};

// Reads bytes taken over from a DataBuffer. The bytes are moved in without a
// copy and handed back to that buffer when the source is destroyed, so the
// application's buffer holds its data again after the call.
class _vqMemoryDataSource : public _vqDataSource {
  public:
    ~_vqMemoryDataSource() override;
    void takeDataBuffer(DataBuffer& buffer);
    bool readSourceChunk(unsigned char* buf, size_t maxBytes, size_t& numRead,
                         LogBase& log) override;
    bool lendSourceChunk(const unsigned char*& data, size_t maxBytes, size_t& numRead) override;

  private:
    DataBuffer m_data;
    DataBuffer* m_origin = nullptr;
    size_t m_pos = 0;
};

}  // namespace scpkit
