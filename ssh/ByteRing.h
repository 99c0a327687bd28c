// A bounded first-in first-out queue of bytes: one channel's received data.
// Storage is allocated as bytes come, up to the limit, and never moves while
// a reader holds a piece of it, so a reader can hand its first piece to an
// output without holding any lock while the transport appends behind it.
#pragma once

#include <cstddef>

namespace scpkit {

class DataBuffer;

class ByteRing {
  public:
    explicit ByteRing(size_t limit) : m_limit(limit) {}
    ~ByteRing();
    ByteRing(const ByteRing&) = delete;
    ByteRing& operator=(const ByteRing&) = delete;

    size_t size() const { return m_size; }
    // How many more bytes append could take.
    size_t room(bool storageMayMove) const;
    // Appends as much as fits and returns the count. storageMayMove false:
    // only the storage allocated now is used (a reader holds a piece of it).
    size_t append(const unsigned char* data, size_t numBytes, bool storageMayMove);
    // The first contiguous piece of the queued bytes: *numBytes of them.
    const unsigned char* front(size_t* numBytes) const;
    void consume(size_t numBytes);
    // Appends the first numBytes queued bytes to out (they stay queued).
    bool copyTo(size_t numBytes, DataBuffer& out) const;
    // The count of queued bytes up to and including the first `c`; 0 when
    // there is none.
    size_t countThrough(unsigned char c) const;

  private:
    bool reallocate(size_t capacity);

    unsigned char* m_data = nullptr;
    size_t m_capacity = 0;
    size_t m_head = 0;  // where the first queued byte is
    size_t m_size = 0;
    size_t m_limit;
};

}  // namespace scpkit
