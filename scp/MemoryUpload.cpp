// Uploads of in-memory data: text in a charset, bytes, encoded bytes and a
// ClsBinData, each sent as one remote file.
#include <scpkit/base/ClsBinData.h>
#include <scpkit/base/CritSec.h>
#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/DataSource.h>
#include <scpkit/base/Encode.h>
#include <scpkit/base/FileTime.h>
#include <scpkit/base/Logger.h>
#include <scpkit/base/Output.h>
#include <scpkit/base/Progress.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/scp/ScpCommand.h>
#include <scpkit/scp/ScpFileInfo.h>
#include <scpkit/ssh/ClsSsh.h>

namespace scpkit {

namespace {
constexpr uint32_t kDefaultPerms = 0644;
}

bool ClsScp::UploadString(XString& remotePath, XString& text, XString& charset,
                          ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadString");
    // A failed conversion is not reported: whatever it produced is sent.
    DataBuffer bytes;
    xstringToDb(charset, text, bytes, m_log);
    return uploadData(remotePath, bytes, progress);
}

bool ClsScp::UploadBinaryEncoded(XString& remotePath, XString& encodedBytes, XString& encoding,
                                 ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadBinaryEncoded");
    DataBuffer bytes;
    _clsEncode encoder;
    encoder.put_EncodingMode(encoding);
    encoder.decodeBinary(encodedBytes, bytes, false, m_log);
    return uploadData(remotePath, bytes, progress);
}

bool ClsScp::UploadBinary(XString& remotePath, DataBuffer& bytes, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadBinary");
    return uploadData(remotePath, bytes, progress);
}

bool ClsScp::UploadBd(XString& remotePath, ClsBinData& bd, ProgressEvent* progress) {
    CritSecExitor cs(m_critSec);
    LogContextExitor ctx(*this, "UploadBd");
    return uploadData(remotePath, bd.getDataBuffer(), progress);
}

bool ClsScp::uploadData(XString& remoteFilePath, DataBuffer& data, ProgressEvent* progress) {
    LogBase& log = m_log;
    if (!ssh) {
        log.LogError("No SSH object has been set.  Must call UseSsh first.");
        logSuccessFailure(false);
        return false;
    }

    int64_t numBytes = static_cast<int64_t>(data.getSize());
    log.LogDataX("remoteFilePath", remoteFilePath);
    log.LogDataInt64("numBytesToUpload", numBytes);
    bool filenameOnly = m_uncommonOptions.containsSubstringNoCase("FilenameOnly");

    _vqMemoryDataSource source;
    source.takeDataBuffer(data);

    XString remoteFilename;
    splitRemoteFilePath(remoteFilePath, remoteFilename);
    log.LogDataX("remoteDir", remoteFilePath);
    log.LogDataX("remoteFilename", remoteFilename);

    ScpFileInfo info;
    info.filename.append(remoteFilename.getUtf8Sb());
    info.fileSize = numBytes;
    info.permissions = useOverride ? overridePerms : kDefaultPerms;
    info.lastModTime.getCurrentGmt();
    info.lastAccTime.getCurrentGmt();
    info.haveTimes = true;
    info.isDirectory = false;
    info.isEndOfDir = false;
    source.m_reportsProgress = true;

    ProgressMonitorPtr pmPtr(progress, m_pollIntervalMs, m_percentScale, numBytes);
    SocketParams sp(pmPtr.getPm());

    return uploadOverChannel(source, info, remoteFilePath, remoteFilename, filenameOnly, sp, false,
                             log);
}

}  // namespace scpkit
