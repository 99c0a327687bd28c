// Public holder of binary data.
#pragma once

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/DataBuffer.h>

namespace scpkit {

class XString;

class ClsBinData : public ClsBase {
  public:
    static ClsBinData* createNewCls();
    ClsBinData();
    ~ClsBinData() override = default;

    int get_NumBytes();
    void Clear();
    bool AppendBinary(const void* bytes, size_t numBytes);
    bool AppendString(XString& text, XString& charset);
    bool AppendEncoded(XString& encoded, XString& encoding);
    bool GetEncoded(XString& encoding, XString& out);
    bool LoadFile(XString& path);
    bool WriteFile(XString& path);

    DataBuffer& getDataBuffer() { return m_data; }

  private:
    DataBuffer m_data;
};

}  // namespace scpkit
