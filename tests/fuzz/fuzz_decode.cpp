// UploadBinaryEncoded decodes text given by the application in a named
// encoding. The first byte picks the encoding; the rest is the text.
// Whatever decodes must encode and decode back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/Encode.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/XString.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* const kModes[] = {"base64",           "base64url", "hex", "hexlower",
                                         "quoted-printable", "qp",        "url"};
    if (size == 0) return 0;
    const char* mode = kModes[data[0] % (sizeof kModes / sizeof kModes[0])];
    _clsEncode enc;
    FUZZ_CHECK(enc.put_EncodingMode(XString(mode)));

    XString text;
    FUZZ_CHECK(text.getUtf8Sb_rw().append(data + 1, size - 1));
    LogNull log;
    DataBuffer decoded;
    if (!enc.decodeBinary(text, decoded, false, log)) return 0;

    XString encoded;
    FUZZ_CHECK(enc.encodeBinary(decoded, encoded, false, log));
    DataBuffer again;
    FUZZ_CHECK(enc.decodeBinary(encoded, again, false, log));
    FUZZ_CHECK(again.getSize() == decoded.getSize());
    FUZZ_CHECK(again.equals(decoded.getData2(), decoded.getSize()));

    // Appending decodes after what the buffer already holds.
    DataBuffer appended;
    FUZZ_CHECK(appended.appendStr("x"));
    FUZZ_CHECK(enc.decodeBinary(encoded, appended, true, log));
    FUZZ_CHECK(appended.getSize() == decoded.getSize() + 1);
    return 0;
}
