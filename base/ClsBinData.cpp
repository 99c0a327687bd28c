#include <scpkit/base/ClsBinData.h>

#include <cstdio>
#include <new>

#include <scpkit/base/Encode.h>
#include <scpkit/base/XString.h>

namespace scpkit {

namespace {

// Closes a stdio file on every path.
struct FileCloser {
    std::FILE* f;
    ~FileCloser() {
        if (f) std::fclose(f);
    }
};

}  // namespace

ClsBinData* ClsBinData::createNewCls() {
    return new (std::nothrow) ClsBinData();
}

ClsBinData::ClsBinData() = default;

int ClsBinData::get_NumBytes() {
    CritSecExitor lock(m_critSec);
    return static_cast<int>(m_data.getSize());
}

void ClsBinData::Clear() {
    CritSecExitor lock(m_critSec);
    m_data.clear();
}

bool ClsBinData::AppendBinary(const void* bytes, size_t numBytes) {
    CritSecExitor lock(m_critSec);
    return m_data.append(bytes, numBytes);
}

bool ClsBinData::AppendString(XString& text, XString& charset) {
    CritSecExitor lock(m_critSec);
    LogContextExitor ctx(*this, "AppendString");
    // Convert into a scratch buffer so a failure leaves the data unchanged.
    DataBuffer converted;
    bool ok = xstringToDb(charset, text, converted, m_log) && m_data.append(converted);
    logSuccessFailure(ok);
    return ok;
}

bool ClsBinData::AppendEncoded(XString& encoded, XString& encoding) {
    CritSecExitor lock(m_critSec);
    LogContextExitor ctx(*this, "AppendEncoded");
    _clsEncode enc;
    if (!enc.put_EncodingMode(encoding)) {
        m_log.LogError("Unknown encoding.");
        m_log.LogDataX("encoding", encoding);
        logSuccessFailure(false);
        return false;
    }
    DataBuffer decoded;
    bool ok = enc.decodeBinary(encoded, decoded, false, m_log) && m_data.append(decoded);
    logSuccessFailure(ok);
    return ok;
}

bool ClsBinData::GetEncoded(XString& encoding, XString& out) {
    CritSecExitor lock(m_critSec);
    LogContextExitor ctx(*this, "GetEncoded");
    out.clear();
    _clsEncode enc;
    if (!enc.put_EncodingMode(encoding)) {
        m_log.LogError("Unknown encoding.");
        m_log.LogDataX("encoding", encoding);
        logSuccessFailure(false);
        return false;
    }
    bool ok = enc.encodeBinary(m_data, out, false, m_log);
    logSuccessFailure(ok);
    return ok;
}

bool ClsBinData::LoadFile(XString& path) {
    CritSecExitor lock(m_critSec);
    LogContextExitor ctx(*this, "LoadFile");
    m_log.LogDataX("path", path);
    FileCloser file{std::fopen(path.getUtf8(), "rb")};
    if (!file.f) {
        m_log.LogError("Failed to open the file for reading.");
        logSuccessFailure(false);
        return false;
    }
    DataBuffer contents;
    unsigned char buf[65536];
    size_t n;
    bool ok = true;
    while (ok && (n = std::fread(buf, 1, sizeof(buf), file.f)) > 0) ok = contents.append(buf, n);
    if (ok && std::ferror(file.f)) {
        m_log.LogError("Failed to read the file.");
        ok = false;
    }
    if (ok) m_data.swapWith(contents);
    logSuccessFailure(ok);
    return ok;
}

bool ClsBinData::WriteFile(XString& path) {
    CritSecExitor lock(m_critSec);
    LogContextExitor ctx(*this, "WriteFile");
    m_log.LogDataX("path", path);
    FileCloser file{std::fopen(path.getUtf8(), "wb")};
    if (!file.f) {
        m_log.LogError("Failed to open the file for writing.");
        logSuccessFailure(false);
        return false;
    }
    size_t n = m_data.getSize();
    bool ok = n == 0 || std::fwrite(m_data.getData2(), 1, n, file.f) == n;
    if (ok) {
        // fclose reports errors of buffered writes.
        std::FILE* f = file.f;
        file.f = nullptr;
        ok = std::fclose(f) == 0;
    }
    if (!ok) m_log.LogError("Failed to write the file.");
    logSuccessFailure(ok);
    return ok;
}

}  // namespace scpkit
