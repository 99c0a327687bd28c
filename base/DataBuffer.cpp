#include <scpkit/base/DataBuffer.h>

#include <cstring>
#include <new>
#include <stdexcept>

#include <scpkit/base/StringBuffer.h>

namespace scpkit {

bool DataBuffer::append(const void* bytes, size_t numBytes) {
    if (!bytes || numBytes == 0) return true;
    try {
        // std::string::append copes with a range of the string itself.
        m_bytes.append(static_cast<const char*>(bytes), numBytes);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    return true;
}

bool DataBuffer::append(const StringBuffer& sb) {
    return append(sb.getString(), sb.getSize());
}

bool DataBuffer::appendStr(const char* text) {
    if (!text) return true;
    return append(text, std::strlen(text));
}

bool DataBuffer::appendChar(char c) {
    return append(&c, 1);
}

void DataBuffer::removeFront(size_t numBytes) {
    if (numBytes >= m_bytes.size()) {
        m_bytes.clear();
        return;
    }
    m_bytes.erase(0, numBytes);
}

bool DataBuffer::equals(const void* bytes, size_t numBytes) const {
    if (numBytes != m_bytes.size()) return false;
    if (numBytes == 0) return true;
    return bytes && std::memcmp(bytes, m_bytes.data(), numBytes) == 0;
}

}  // namespace scpkit
