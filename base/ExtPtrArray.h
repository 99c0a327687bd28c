// Owning arrays of heap objects, used as stacks and lists.
#pragma once

#include <memory>
#include <vector>

#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/VostrelObject.h>

namespace scpkit {

template <typename T>
class OwningPtrArray {
  public:
    OwningPtrArray() = default;
    OwningPtrArray(const OwningPtrArray&) = delete;
    OwningPtrArray& operator=(const OwningPtrArray&) = delete;
    ~OwningPtrArray() { removeAllObjects(); }

    // Takes ownership; false (and the object deleted) when it cannot be stored.
    bool appendObject(T* obj) {
        if (!obj) return false;
        try {
            m_items.push_back(obj);
        } catch (...) {
            delete obj;
            return false;
        }
        return true;
    }
    // Removes the last element and hands it, with ownership, to the caller.
    T* pop() {
        if (m_items.empty()) return nullptr;
        T* last = m_items.back();
        m_items.pop_back();
        return last;
    }
    T* lastElement() const { return m_items.empty() ? nullptr : m_items.back(); }
    T* elementAt(int i) const {
        return (i >= 0 && i < getSize()) ? m_items[static_cast<size_t>(i)] : nullptr;
    }
    int getSize() const { return static_cast<int>(m_items.size()); }
    void removeAllObjects() {
        for (T* p : m_items) delete p;
        m_items.clear();
    }

  private:
    std::vector<T*> m_items;
};

using ExtPtrArray = OwningPtrArray<VostrelObject>;

class ExtPtrArraySb : public OwningPtrArray<StringBuffer> {
  public:
    // Appends a copy of the text; false on failure.
    bool appendString(const char* text) {
        StringBuffer* sb = nullptr;
        try {
            sb = new StringBuffer(text);
        } catch (...) {
            return false;
        }
        return appendObject(sb);
    }
    // The text at i, or null when out of range.
    const char* strAt(int i) const {
        StringBuffer* sb = elementAt(i);
        return sb ? sb->getString() : nullptr;
    }
};

}  // namespace scpkit
