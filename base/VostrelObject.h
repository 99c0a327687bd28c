// Roots of the heap-object families: plain heap objects, records held in
// owning containers, and reference-counted objects shared between owners.
#pragma once

#include <atomic>
#include <cstddef>

namespace scpkit {

class VostrelObject {
public:
    VostrelObject() = default;
    VostrelObject(const VostrelObject&) = delete;
    VostrelObject& operator=(const VostrelObject&) = delete;
    virtual ~VostrelObject() = default;

    // Approximate bytes held on the heap by this object (for diagnostics).
    virtual size_t heapUsage() const { return 0; }

    // Destroys a heap object created by the library; null is ignored.
    static void deleteObject(VostrelObject* obj) { delete obj; }
};

// Base of records held in owning arrays and maps.
class NonRefCountedObj : public VostrelObject {};

// Shared object: the last decRefCount deletes it. A new object starts at 1.
class RefCountedObject : public VostrelObject {
public:
    void incRefCount() { m_refCount.fetch_add(1, std::memory_order_relaxed); }
    // Returns the count after the decrement; deletes the object at 0.
    int decRefCount() {
        int left = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) delete this;
        return left;
    }
    int getRefCount() const { return m_refCount.load(std::memory_order_acquire); }

private:
    std::atomic<int> m_refCount{1};
};

}  // namespace scpkit
