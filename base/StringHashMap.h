// String-keyed map that owns its values.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include <scpkit/base/VostrelObject.h>

namespace scpkit {

class StringHashMap : public VostrelObject {
  public:
    // A new, empty map sized for about `numBuckets` keys; null on failure.
    static StringHashMap* createNewObject(int numBuckets);

    // Takes ownership of value (also on failure). A value already stored
    // under the key is deleted and replaced.
    bool hashInsert(const char* key, NonRefCountedObj* value);
    // The stored object, or null.
    NonRefCountedObj* hashLookup(const char* key) const;
    int getCount() const { return static_cast<int>(m_map.size()); }

  private:
    StringHashMap() = default;
    std::unordered_map<std::string, std::unique_ptr<NonRefCountedObj>> m_map;
};

}  // namespace scpkit
