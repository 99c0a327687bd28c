// The SCP component object: construction, the bound SSH object and the
// property accessors. Transfers live in their own sources.
#include <scpkit/scp/ClsScp.h>

#include <new>

#include <scpkit/base/Conversions.h>
#include <scpkit/base/CritSec.h>
#include <scpkit/base/Logger.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {
constexpr int kScpObjectType = 39;
}

ClsScp* ClsScp::createNewCls() {
    try {
        return new ClsScp();
    } catch (...) {
        return nullptr;
    }
}

ClsScp::ClsScp() {
    m_objectType = kScpObjectType;
}

ClsScp::~ClsScp() {
    if (ssh) {
        CritSecExitor cs(m_critSec);
        ssh->decRefCount();
        ssh = nullptr;
    }
}

bool ClsScp::UseSsh(ClsSsh& newSsh) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UseSsh");
    if (&newSsh != ssh) {
        newSsh.incRefCount();
        if (ssh) {
            ssh->decRefCount();
            ssh = nullptr;
        }
        ssh = &newSsh;
        // The remote scp's error output must not mix with the protocol stream.
        ssh->put_StderrToStdout(false);
    }
    logSuccessFailure(true);
    return true;
}

bool ClsScp::hasOption(const char* keyword) const {
    return m_uncommonOptions.containsSubstringNoCase(keyword);
}

bool ClsScp::requireSsh(LogBase& log) {
    if (ssh) return true;
    log.LogError("No SSH object has been set.  Must call UseSsh first.");
    logSuccessFailure(false);
    return false;
}

void ClsScp::get_SendEnv(XString& out) {
    CritSecExitor cs(m_critSec);
    out.copyFromX(sendEnv);
}

void ClsScp::put_SendEnv(XString& value) {
    CritSecExitor cs(m_critSec);
    sendEnv.copyFromX(value);
}

void ClsScp::get_UnixPermOverride(XString& out) {
    CritSecExitor cs(m_critSec);
    out.setFromSbUtf8(unixPermOverride);
}

void ClsScp::put_UnixPermOverride(XString& value) {
    CritSecExitor cs(m_critSec);
    unixPermOverride.setString(value.getUtf8());
    unixPermOverride.trim2();
    if (unixPermOverride.getSize() == 0) {
        useOverride = false;
    } else if (_validOctal(unixPermOverride.getString(),
                           static_cast<unsigned>(unixPermOverride.getSize()))) {
        overridePerms = vq_valOctal(unixPermOverride.getString());
        useOverride = true;
    } else {
        // Not an octal number: dropped; overridePerms keeps its last value.
        unixPermOverride.clear();
        useOverride = false;
    }
}

void ClsScp::get_SyncedFiles(XString& out) {
    CritSecExitor cs(m_critSec);
    syncedFiles.trim2();
    out.setFromSbUtf8(syncedFiles);
}

void ClsScp::put_SyncedFiles(XString& value) {
    CritSecExitor cs(m_critSec);
    syncedFiles.setString(value.getUtf8());
}

void ClsScp::get_SyncMustMatch(XString& out) {
    CritSecExitor cs(m_critSec);
    out.copyFromX(syncMustMatch);
}

void ClsScp::put_SyncMustMatch(XString& value) {
    CritSecExitor cs(m_critSec);
    syncMustMatch.copyFromX(value);
}

void ClsScp::get_SyncMustNotMatch(XString& out) {
    CritSecExitor cs(m_critSec);
    out.copyFromX(syncMustNotMatch);
}

void ClsScp::put_SyncMustNotMatch(XString& value) {
    CritSecExitor cs(m_critSec);
    syncMustNotMatch.copyFromX(value);
}

void ClsScp::get_SyncMustMatchDir(XString& out) {
    CritSecExitor cs(m_critSec);
    out.copyFromX(syncMustMatchDir);
}

void ClsScp::put_SyncMustMatchDir(XString& value) {
    CritSecExitor cs(m_critSec);
    syncMustMatchDir.copyFromX(value);
}

void ClsScp::get_SyncMustNotMatchDir(XString& out) {
    CritSecExitor cs(m_critSec);
    out.copyFromX(syncMustNotMatchDir);
}

void ClsScp::put_SyncMustNotMatchDir(XString& value) {
    CritSecExitor cs(m_critSec);
    syncMustNotMatchDir.copyFromX(value);
}

}  // namespace scpkit
