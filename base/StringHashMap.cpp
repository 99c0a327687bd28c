#include <scpkit/base/StringHashMap.h>

#include <new>

namespace scpkit {

StringHashMap* StringHashMap::createNewObject(int numBuckets) {
    StringHashMap* map = new (std::nothrow) StringHashMap();
    if (!map) return nullptr;
    try {
        if (numBuckets > 0) map->m_map.reserve(static_cast<size_t>(numBuckets));
    } catch (...) {
        delete map;
        return nullptr;
    }
    return map;
}

bool StringHashMap::hashInsert(const char* key, NonRefCountedObj* value) {
    if (key && value) {
        // Storing the object already held under the key changes nothing.
        auto it = m_map.find(key);
        if (it != m_map.end() && it->second.get() == value) return true;
    }
    std::unique_ptr<NonRefCountedObj> owned(value);
    if (!key || !value) return false;
    try {
        // Assigning replaces (and so deletes) any value already under the key.
        m_map[key] = std::move(owned);
    } catch (...) {
        return false;
    }
    return true;
}

NonRefCountedObj* StringHashMap::hashLookup(const char* key) const {
    if (!key) return nullptr;
    auto it = m_map.find(key);
    return it == m_map.end() ? nullptr : it->second.get();
}

}  // namespace scpkit
