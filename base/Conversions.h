// Small conversions: octal text, a bounded scanf, wildcard lists.
#pragma once

namespace scpkit {

class XString;
class ExtPtrArraySb;

// value as octal text, zero-padded on the left to `digits` digits (more
// digits when needed); buffer must hold at least 12 bytes.
void vq_0o(unsigned value, int digits, char* buffer);
// True when the first `length` bytes are all octal digits (and length > 0).
bool _validOctal(const char* text, unsigned length);
// The value of the octal digits at the start of the text (0 when none);
// saturates at the largest unsigned value.
unsigned vq_valOctal(const char* text);

class _vqStdio {
public:
    // A scanf-style scan of up to four fields. Supports %u (unsigned*), %d
    // (int*), %s is not supported; white space in the format matches any run
    // of white space, other characters match themselves. A number out of its
    // type's range stops the scan. Returns the number of fields converted.
    static int _vqSscanf4(const char* text, const char* format, void* d1, void* d2, void* d3,
                          void* d4);
};

// True when the name matches any shell wildcard pattern of the list
// (fnmatch: '*', '?', '[...]'). caseInsensitive folds case.
bool vqMatchesAny(const XString& name, const ExtPtrArraySb& patterns, bool caseInsensitive);

}  // namespace scpkit
