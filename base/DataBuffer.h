// Growable byte array.
#pragma once

#include <cstddef>
#include <string>

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
    const unsigned char* getData2() const {
        return reinterpret_cast<const unsigned char*>(m_bytes.data());
    }
    unsigned char* getData2_rw() { return reinterpret_cast<unsigned char*>(&m_bytes[0]); }
    // The first byte, or 0 when empty.
    unsigned char firstByte() const {
        return m_bytes.empty() ? 0 : static_cast<unsigned char>(m_bytes[0]);
    }
    void reserve(size_t numBytes) {
        if (numBytes > m_bytes.capacity()) m_bytes.reserve(numBytes);
    }
    // Drops the first n bytes.
    void removeFront(size_t numBytes);
    void swapWith(DataBuffer& other) { m_bytes.swap(other.m_bytes); }
    // Hands the bytes to out, replacing what it held, without copying them;
    // the buffer is left empty.
    void moveBytesTo(std::string& out) {
        out.swap(m_bytes);
        m_bytes.clear();
    }
    bool equals(const void* bytes, size_t numBytes) const;

  private:
    // A string rather than a vector: its storage can become a text's (moveBytesTo).
    std::string m_bytes;
};

}  // namespace scpkit
