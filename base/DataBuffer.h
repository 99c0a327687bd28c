// Growable byte array.
#pragma once

#include <cstddef>
#include <vector>

namespace scpkit {

class StringBuffer;

class DataBuffer {
public:
    bool append(const void* bytes, size_t numBytes);
    bool append(const StringBuffer& sb);
    bool append(const DataBuffer& other) { return append(other.getData2(), other.getSize()); }
    bool appendStr(const char* text);
    bool appendChar(char c);
    void clear() { m_bytes.clear(); }
    size_t getSize() const { return m_bytes.size(); }
    // Pointer to the first byte (valid while the buffer is not changed).
    const unsigned char* getData2() const { return m_bytes.data(); }
    unsigned char* getData2_rw() { return m_bytes.data(); }
    // The first byte, or 0 when empty.
    unsigned char firstByte() const { return m_bytes.empty() ? 0 : m_bytes[0]; }
    void reserve(size_t numBytes) { m_bytes.reserve(numBytes); }
    // Drops the first n bytes.
    void removeFront(size_t numBytes);
    void swapWith(DataBuffer& other) { m_bytes.swap(other.m_bytes); }
    bool equals(const void* bytes, size_t numBytes) const;

private:
    std::vector<unsigned char> m_bytes;
};

}  // namespace scpkit
