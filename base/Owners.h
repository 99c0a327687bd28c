// Scope holders that delete heap objects on every exit.
#pragma once

#include <scpkit/base/VostrelObject.h>

namespace scpkit {

class ObjectOwner {
  public:
    explicit ObjectOwner(VostrelObject* obj = nullptr) : m_obj(obj) {}
    ~ObjectOwner() { VostrelObject::deleteObject(m_obj); }
    ObjectOwner(const ObjectOwner&) = delete;
    ObjectOwner& operator=(const ObjectOwner&) = delete;
    void own(VostrelObject* obj) {
        VostrelObject::deleteObject(m_obj);
        m_obj = obj;
    }
    VostrelObject* get() const { return m_obj; }

  private:
    VostrelObject* m_obj;
};

}  // namespace scpkit
