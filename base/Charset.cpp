#include <scpkit/base/Charset.h>

#include <iconv.h>

#include <strings.h>
#include <cerrno>
#include <cstdint>

#include <cstring>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/LogBase.h>
#include <scpkit/base/StringBuffer.h>

namespace scpkit {

namespace {

// One iconv descriptor for one conversion, closed at scope exit.
class IconvHandle {
  public:
    IconvHandle(const char* to, const char* from) : m_cd(iconv_open(to, from)) {}
    ~IconvHandle() {
        if (ok()) iconv_close(m_cd);
    }
    IconvHandle(const IconvHandle&) = delete;
    IconvHandle& operator=(const IconvHandle&) = delete;
    bool ok() const { return m_cd != reinterpret_cast<iconv_t>(-1); }
    iconv_t get() const { return m_cd; }

  private:
    iconv_t m_cd;
};

// The charset name without surrounding blanks; an empty name is refused
// because iconv would read it as "the locale's charset".
bool normalizedName(const char* charset, StringBuffer& name, LogBase& log) {
    name.setString(charset);
    name.trim2();
    if (name.getSize() == 0) {
        log.LogError("No charset name given.");
        return false;
    }
    return true;
}

// Runs the whole conversion, calling sink(bytes, n) for each converted piece.
template <typename Sink>
bool convert(const char* to, const char* from, const char* charsetForLog,
             const unsigned char* input, size_t numBytes, LogBase& log, Sink&& sink) {
    IconvHandle cd(to, from);
    if (!cd.ok()) {
        log.LogError("Unknown or unsupported charset.");
        log.LogData("charset", charsetForLog);
        return false;
    }
    char buf[4096];
    char* in = const_cast<char*>(reinterpret_cast<const char*>(input));
    size_t inLeft = numBytes;
    bool flushing = false;
    for (;;) {
        char* out = buf;
        size_t outLeft = sizeof(buf);
        size_t rc = flushing ? iconv(cd.get(), nullptr, nullptr, &out, &outLeft)
                             : iconv(cd.get(), &in, &inLeft, &out, &outLeft);
        int err = errno;
        if (out > buf && !sink(buf, static_cast<size_t>(out - buf))) {
            log.LogError("Out of memory converting text.");
            return false;
        }
        if (rc == static_cast<size_t>(-1)) {
            if (err == E2BIG) continue;
            if (err == EILSEQ) {
                log.LogError(std::strcmp(from, "UTF-8") == 0
                                 ? "Text is not valid UTF-8 or has a character the charset lacks."
                                 : "Input bytes are not valid in the charset.");
            } else if (err == EINVAL) {
                log.LogError("Input ends inside a multi-byte sequence.");
            } else {
                log.LogError("Charset conversion failed.");
            }
            log.LogData("charset", charsetForLog);
            log.LogDataInt64("byteOffset", static_cast<int64_t>(numBytes - inLeft));
            return false;
        }
        if (rc > 0 && !flushing) {
            // Counted irreversible conversions: a character was approximated.
            log.LogError("Text has characters the charset cannot represent exactly.");
            log.LogData("charset", charsetForLog);
            return false;
        }
        if (flushing) return true;
        flushing = true;  // all input consumed: emit any closing shift sequence
    }
}

}  // namespace

bool utf8ToCharset(const char* charset, const char* utf8, size_t numBytes, DataBuffer& out,
                   LogBase& log) {
    StringBuffer name;
    if (!normalizedName(charset, name, log)) return false;
    DataBuffer converted;
    bool ok = convert(name.getString(), "UTF-8", name.getString(),
                      reinterpret_cast<const unsigned char*>(utf8), utf8 ? numBytes : 0, log,
                      [&](const char* p, size_t n) { return converted.append(p, n); });
    if (!ok) return false;
    return out.append(converted);
}

bool charsetToUtf8(const char* charset, const unsigned char* bytes, size_t numBytes,
                   std::string& out, LogBase& log) {
    StringBuffer name;
    if (!normalizedName(charset, name, log)) return false;
    std::string converted;
    bool ok = convert("UTF-8", name.getString(), name.getString(), bytes, bytes ? numBytes : 0, log,
                      [&](const char* p, size_t n) {
                          try {
                              converted.append(p, n);
                          } catch (...) {
                              return false;
                          }
                          return true;
                      });
    if (!ok) return false;
    out.swap(converted);
    return true;
}

bool isUtf8Charset(const char* charset) {
    StringBuffer name(charset);
    name.trim2();
    return strcasecmp(name.getString(), "utf-8") == 0 || strcasecmp(name.getString(), "utf8") == 0;
}

bool isValidUtf8(const unsigned char* bytes, size_t numBytes) {
    size_t i = 0;
    while (i < numBytes) {
        uint64_t eight;  // plain ASCII, eight bytes at a time
        if (numBytes - i >= 8 &&
            (std::memcpy(&eight, bytes + i, 8), eight & 0x8080808080808080u) == 0) {
            i += 8;
            continue;
        }
        const unsigned char c = bytes[i];
        // The sequence's length from its lead byte, and the range of its
        // second byte that keeps it the shortest form and off the surrogates.
        const size_t len = c < 0x80   ? 1
                           : c < 0xC2 ? 0
                           : c < 0xE0 ? 2
                           : c < 0xF0 ? 3
                           : c < 0xF8 ? 4
                           : c < 0xFC ? 5
                           : c < 0xFE ? 6
                                      : 0;
        const unsigned char low = c == 0xE0   ? 0xA0
                                  : c == 0xF0 ? 0x90
                                  : c == 0xF8 ? 0x88
                                  : c == 0xFC ? 0x84
                                              : 0x80;
        const unsigned char high = c == 0xED ? 0x9F : 0xBF;
        if (len == 0 || numBytes - i < len) return false;
        if (len > 1 && (bytes[i + 1] < low || bytes[i + 1] > high)) return false;
        for (size_t k = 2; k < len; ++k)
            if ((bytes[i + k] & 0xC0) != 0x80) return false;
        i += len;
    }
    return true;
}

}  // namespace scpkit
