// The SendEnv property is JSON text given by the application; whatever it
// holds, loading it must be safe and its members readable.
#include <cstddef>
#include <cstdint>

#include <scpkit/base/ClsJsonObject.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/XString.h>
#include "tests/fuzz/FuzzCheck.h"

using namespace scpkit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ClsJsonObject* json = ClsJsonObject::createNewCls();
    FUZZ_CHECK(json != nullptr);
    DataBuffer bytes;
    FUZZ_CHECK(bytes.append(data, size));
    LogNull log;
    const bool loaded = json->loadJson(bytes, log);
    const int n = json->get_Size();
    FUZZ_CHECK(n >= 0);
    if (!loaded) FUZZ_CHECK(n == 0);
    for (int i = 0; i < n; ++i) {
        XString name, value;
        FUZZ_CHECK(json->NameAt(i, name));
        FUZZ_CHECK(json->StringAt(i, value));
    }
    XString name, value;
    FUZZ_CHECK(!json->NameAt(n, name));
    FUZZ_CHECK(!json->StringAt(-1, value));
    delete json;
    return 0;
}
