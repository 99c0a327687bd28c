// The four Sync filter properties are ';'-separated wildcard lists matched
// against names a server sends. Input: the list text, a 0x00, the name.
#include <cstddef>
#include <cstdint>
#include <string>

#include <scpkit/base/Conversions.h>
#include <scpkit/base/ExtPtrArray.h>
#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/XString.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t cut = input.find('\0');
    StringBuffer listText;
    FUZZ_CHECK(listText.append(input.substr(0, cut).c_str()));
    const std::string nameText = cut == std::string::npos ? std::string() : input.substr(cut + 1);
    XString name(nameText.c_str());

    ExtPtrArraySb patterns;
    FUZZ_CHECK(listText.splitAndTrim(patterns, ';', true, true));
    size_t separators = 0;
    for (size_t i = 0; i < listText.getSize(); ++i) separators += listText.getString()[i] == ';';
    FUZZ_CHECK(static_cast<size_t>(patterns.getSize()) <= separators + 1);
    for (int i = 0; i < patterns.getSize(); ++i) {
        const std::string p = patterns.strAt(i);
        FUZZ_CHECK(!p.empty());
        FUZZ_CHECK(p.find(';') == std::string::npos);
        FUZZ_CHECK(!isBlank(p.front()) && !isBlank(p.back()));
    }
    (void)vqMatchesAny(name, patterns, false);
    (void)vqMatchesAny(name, patterns, true);

    // "*" matches every name, and so does the name with every byte escaped.
    ExtPtrArraySb star;
    FUZZ_CHECK(star.appendString("*"));
    FUZZ_CHECK(vqMatchesAny(name, star, false));
    std::string escaped;
    for (const char* p = name.getUtf8(); *p; ++p) {
        escaped += '\\';
        escaped += *p;
    }
    ExtPtrArraySb exact;
    FUZZ_CHECK(exact.appendString(escaped.c_str()));
    FUZZ_CHECK(vqMatchesAny(name, exact, false));
    FUZZ_CHECK(vqMatchesAny(name, exact, true));
    return 0;
}
