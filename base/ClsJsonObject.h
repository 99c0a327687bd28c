// A JSON object whose members keep their order (on nlohmann-json).
#pragma once

#include <memory>

#include <scpkit/base/ClsBase.h>

namespace scpkit {

class DataBuffer;
class XString;

class ClsJsonObject : public ClsBase {
  public:
    static ClsJsonObject* createNewCls();
    ~ClsJsonObject() override;

    // Loads UTF-8 JSON text. Text that does not parse, or is not an object,
    // leaves an object with no members and returns false.
    bool loadJson(const DataBuffer& utf8, LogBase& log);
    bool Load(XString& json);

    int get_Size();
    bool NameAt(int index, XString& name);
    // A string member's text; numbers and booleans as their JSON text;
    // null as the empty string; objects and arrays as compact JSON.
    bool StringAt(int index, XString& value);

  private:
    ClsJsonObject();
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace scpkit
