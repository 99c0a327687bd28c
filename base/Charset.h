// Charset conversion between UTF-8 and a named charset (iconv).
#pragma once

#include <string>

namespace scpkit {

class DataBuffer;
class LogBase;

// Converts UTF-8 text to the charset, appending to out. False (with the
// reason logged) for an unknown charset or text it cannot represent.
bool utf8ToCharset(const char* charset, const char* utf8, size_t numBytes, DataBuffer& out,
                   LogBase& log);
// Converts bytes in the charset to UTF-8 (replacing out).
bool charsetToUtf8(const char* charset, const unsigned char* bytes, size_t numBytes,
                   std::string& out, LogBase& log);

// Whether the name, blanks aside, is "utf-8" or "utf8" in any case.
bool isUtf8Charset(const char* charset);
// Whether the bytes are well-formed UTF-8 as converting from "utf-8"
// takes it: shortest forms, no surrogates, sequences of up to six bytes.
bool isValidUtf8(const unsigned char* bytes, size_t numBytes);

}  // namespace scpkit
