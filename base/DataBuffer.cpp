#include <scpkit/base/DataBuffer.h>

#include <cstring>
#include <new>
#include <stdexcept>

#include <scpkit/base/StringBuffer.h>

namespace scpkit {

bool DataBuffer::append(const void* bytes, size_t numBytes) {
    if (!bytes || numBytes == 0) return true;
    const unsigned char* p = static_cast<const unsigned char*>(bytes);
    try {
        // Appending a range of our own storage: copy first, since insert may reallocate.
        if (!m_bytes.empty() && p >= m_bytes.data() && p < m_bytes.data() + m_bytes.size()) {
            std::vector<unsigned char> copy(p, p + numBytes);
            m_bytes.insert(m_bytes.end(), copy.begin(), copy.end());
        } else {
            m_bytes.insert(m_bytes.end(), p, p + numBytes);
        }
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
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<std::ptrdiff_t>(numBytes));
}

bool DataBuffer::equals(const void* bytes, size_t numBytes) const {
    if (numBytes != m_bytes.size()) return false;
    if (numBytes == 0) return true;
    return bytes && std::memcmp(bytes, m_bytes.data(), numBytes) == 0;
}

}  // namespace scpkit
