// Binary-to-text encodings selected by name: "base64", "base64url", "hex"
// (upper case; "hexlower" for lower case; either accepted on decode),
// "quoted-printable" (also "qp"), "url" (percent-encoding). Names compare
// without regard to case.
#pragma once

#include <string>

namespace scpkit {

class DataBuffer;
class LogBase;
class XString;

class _clsEncode {
public:
    // False (mode unchanged) for an unknown name.
    bool put_EncodingMode(const XString& name);
    void get_EncodingMode(XString& name) const;

    // `append` true appends to the output; false replaces it. False on an
    // unknown mode or text that does not decode (the reason logged).
    bool encodeBinary(const DataBuffer& bytes, XString& text, bool append, LogBase& log);
    bool decodeBinary(const XString& text, DataBuffer& bytes, bool append, LogBase& log);

private:
    std::string m_mode = "base64";
};

}  // namespace scpkit
