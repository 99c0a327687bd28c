#include <scpkit/base/ClsJsonObject.h>

#include <new>
#include <nlohmann/json.hpp>
#include <string>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/XString.h>

namespace scpkit {

// ordered_json keeps members in the order they appear in the text.
struct ClsJsonObject::Impl {
    nlohmann::ordered_json root = nlohmann::ordered_json::object();

    const nlohmann::ordered_json::object_t& members() const {
        return root.get_ref<const nlohmann::ordered_json::object_t&>();
    }
    // The members are stored in a vector, so an index is a position in the text.
    const auto& memberAt(int index) const { return *(members().begin() + index); }
    bool inRange(int index) const {
        return index >= 0 && static_cast<size_t>(index) < members().size();
    }
};

ClsJsonObject* ClsJsonObject::createNewCls() {
    try {
        return new ClsJsonObject();
    } catch (...) {
        return nullptr;
    }
}

ClsJsonObject::ClsJsonObject() : m_impl(std::make_unique<Impl>()) {}

ClsJsonObject::~ClsJsonObject() = default;

bool ClsJsonObject::loadJson(const DataBuffer& utf8, LogBase& log) {
    CritSecExitor lock(m_critSec);
    m_impl->root = nlohmann::ordered_json::object();
    const unsigned char* begin = utf8.getData2();
    const unsigned char* end = begin + utf8.getSize();
    nlohmann::ordered_json parsed;
    try {
        // No exceptions for bad text: a failed parse yields a discarded value.
        parsed = nlohmann::ordered_json::parse(begin, end, nullptr, false);
    } catch (...) {
        log.LogError("Out of memory parsing JSON.");
        return false;
    }
    if (parsed.is_discarded()) {
        log.LogError("The text is not valid JSON.");
        return false;
    }
    if (!parsed.is_object()) {
        log.LogError("The JSON text is not an object.");
        return false;
    }
    m_impl->root = std::move(parsed);
    return true;
}

bool ClsJsonObject::Load(XString& json) {
    CritSecExitor lock(m_critSec);
    LogContextExitor ctx(*this, "Load");
    DataBuffer bytes;
    bool ok = bytes.append(json.getUtf8Sb()) && loadJson(bytes, m_log);
    logSuccessFailure(ok);
    return ok;
}

int ClsJsonObject::get_Size() {
    CritSecExitor lock(m_critSec);
    return static_cast<int>(m_impl->members().size());
}

bool ClsJsonObject::NameAt(int index, XString& name) {
    CritSecExitor lock(m_critSec);
    name.clear();
    if (!m_impl->inRange(index)) return false;
    const std::string& key = m_impl->memberAt(index).first;
    return name.getUtf8Sb_rw().append(key.data(), key.size());
}

bool ClsJsonObject::StringAt(int index, XString& value) {
    CritSecExitor lock(m_critSec);
    value.clear();
    if (!m_impl->inRange(index)) return false;
    const nlohmann::ordered_json& member = m_impl->memberAt(index).second;
    try {
        std::string text;
        if (member.is_string())
            text = member.get_ref<const std::string&>();
        else if (!member.is_null())
            text = member.dump();
        return value.getUtf8Sb_rw().append(text.data(), text.size());
    } catch (...) {
        return false;
    }
}

}  // namespace scpkit
