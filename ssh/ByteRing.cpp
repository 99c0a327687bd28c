#include <scpkit/ssh/ByteRing.h>

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include <scpkit/base/DataBuffer.h>

namespace scpkit {

namespace {
// Storage starts at this size and doubles as needed, so a channel that only
// ever sees acknowledgements and control lines keeps a small buffer.
constexpr size_t kFirstCapacity = 64 * 1024;
}  // namespace

ByteRing::~ByteRing() {
    if (m_data) ::munmap(m_data, m_capacity);
}

size_t ByteRing::room(bool storageMayMove) const {
    return (storageMayMove ? m_limit : std::min(m_limit, m_capacity)) - m_size;
}

bool ByteRing::reallocate(size_t capacity) {
    // Pages of their own, given back whole when the ring grows or goes: a
    // heap would keep the smaller rings of a growing one as resident memory.
    void* pages =
        ::mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) return false;
    auto* fresh = static_cast<unsigned char*>(pages);
    size_t first = std::min(m_size, m_capacity - m_head);
    if (first > 0) std::memcpy(fresh, m_data + m_head, first);
    if (m_size > first) std::memcpy(fresh + first, m_data, m_size - first);
    if (m_data) ::munmap(m_data, m_capacity);
    m_data = fresh;
    m_capacity = capacity;
    m_head = 0;
    return true;
}

size_t ByteRing::append(const unsigned char* data, size_t numBytes, bool storageMayMove) {
    numBytes = std::min(numBytes, room(storageMayMove));
    if (numBytes == 0) return 0;
    if (m_size + numBytes > m_capacity) {
        size_t capacity = std::max(kFirstCapacity, m_capacity);
        while (capacity < m_size + numBytes) capacity *= 2;
        if (!reallocate(std::min(capacity, m_limit))) return 0;
    }
    size_t tail = (m_head + m_size) % m_capacity;
    size_t first = std::min(numBytes, m_capacity - tail);
    std::memcpy(m_data + tail, data, first);
    if (numBytes > first) std::memcpy(m_data, data + first, numBytes - first);
    m_size += numBytes;
    return numBytes;
}

const unsigned char* ByteRing::front(size_t* numBytes) const {
    *numBytes = std::min(m_size, m_capacity - m_head);
    return m_data + m_head;
}

void ByteRing::consume(size_t numBytes) {
    numBytes = std::min(numBytes, m_size);
    m_size -= numBytes;
    m_head = m_size == 0 ? 0 : (m_head + numBytes) % m_capacity;
}

bool ByteRing::copyTo(size_t numBytes, DataBuffer& out) const {
    numBytes = std::min(numBytes, m_size);
    size_t first = std::min(numBytes, m_capacity - m_head);
    return out.append(m_data + m_head, first) && out.append(m_data, numBytes - first);
}

size_t ByteRing::countThrough(unsigned char c) const {
    if (m_size == 0) return 0;
    size_t first = std::min(m_size, m_capacity - m_head);
    if (const void* at = std::memchr(m_data + m_head, c, first))
        return static_cast<size_t>(static_cast<const unsigned char*>(at) - (m_data + m_head)) + 1;
    if (const void* at = std::memchr(m_data, c, m_size - first))
        return first + static_cast<size_t>(static_cast<const unsigned char*>(at) - m_data) + 1;
    return 0;
}

}  // namespace scpkit
