#include <scpkit/base/LogBase.h>

#include <string>

#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/XString.h>

namespace scpkit {

void LogBase::LogDataX(const char* tag, const XString& value) {
    LogData(tag, value.getUtf8());
}

void LogBase::LogDataSb(const char* tag, const StringBuffer& value) {
    LogData(tag, value.getString());
}

void LogBase::LogDataLong(const char* tag, int32_t value) {
    LogData(tag, std::to_string(value).c_str());
}

void LogBase::LogDataInt64(const char* tag, int64_t value) {
    LogData(tag, std::to_string(value).c_str());
}

void LogBase::LogDataBool(const char* tag, bool value) {
    LogData(tag, value ? "true" : "false");
}

}  // namespace scpkit
