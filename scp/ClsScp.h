// SCP client: copies files, in-memory data and directory trees to and from
// a remote host over a connected ClsSsh, running the remote scp program on
// a fresh session channel for every transfer.
#pragma once

#include <cstdint>

#include <scpkit/base/ClsBase.h>
#include <scpkit/base/StringBuffer.h>
#include <scpkit/base/XString.h>

namespace scpkit {

class ClsSsh;
class ClsBinData;
class DataBuffer;
class ExtPtrArraySb;
class OutputDataBuffer;
class ProgressEvent;
class ScpFileInfo;
class SocketParams;
class StringHashMap;
class _vqDataSource;
class _vqFileDataSource;
class _vqOutput;

class ClsScp : public ClsBase {
  public:
    // Null on allocation failure.
    static ClsScp* createNewCls();
    ClsScp();
    ~ClsScp() override;

    // Binds a connected SSH object (one reference held while bound).
    bool UseSsh(ClsSsh& ssh);

    // ---- properties ----
    // A JSON object of environment variables set on each channel.
    void get_SendEnv(XString& out);
    void put_SendEnv(XString& value);
    // Octal permissions forced on uploads ("" for none; invalid text is dropped).
    void get_UnixPermOverride(XString& out);
    void put_UnixPermOverride(XString& value);
    // Relative paths copied by the last tree synchronisation, one per line.
    void get_SyncedFiles(XString& out);
    void put_SyncedFiles(XString& value);
    // Wildcard lists separated by ';' (file names / directory names).
    void get_SyncMustMatch(XString& out);
    void put_SyncMustMatch(XString& value);
    void get_SyncMustNotMatch(XString& out);
    void put_SyncMustNotMatch(XString& value);
    void get_SyncMustMatchDir(XString& out);
    void put_SyncMustMatchDir(XString& value);
    void get_SyncMustNotMatchDir(XString& out);
    void put_SyncMustNotMatchDir(XString& value);

    // ---- single transfers ----
    // remoteFilePath is shortened in place to its directory part ("." for a bare name).
    bool UploadFile(XString& localFilePath, XString& remoteFilePath,
                    ProgressEvent* progress = nullptr);
    bool DownloadFile(XString& remotePath, XString& localPath, ProgressEvent* progress = nullptr);
    bool UploadString(XString& remotePath, XString& text, XString& charset,
                      ProgressEvent* progress = nullptr);
    bool UploadBinary(XString& remotePath, DataBuffer& bytes, ProgressEvent* progress = nullptr);
    bool UploadBinaryEncoded(XString& remotePath, XString& encodedBytes, XString& encoding,
                             ProgressEvent* progress = nullptr);
    bool UploadBd(XString& remotePath, ClsBinData& bd, ProgressEvent* progress = nullptr);
    bool DownloadString(XString& remotePath, XString& charset, XString& outStr,
                        ProgressEvent* progress = nullptr);
    bool DownloadBinary(XString& remotePath, DataBuffer& outBytes,
                        ProgressEvent* progress = nullptr);
    bool DownloadBinaryEncoded(XString& remotePath, XString& encoding, XString& outStr,
                               ProgressEvent* progress = nullptr);
    bool DownloadBd(XString& remotePath, ClsBinData& bd, ProgressEvent* progress = nullptr);

    // ---- tree synchronisation ----
    // Uncommon options (put_UncommonOptions, any case):
    //   "Pipelined"     answers leave as soon as they are known, not one round
    //                   trip at a time (uploads, tree walks); same bytes, same
    //                   order; never data before its "C" is accepted, nothing
    //                   inside a directory before its "D" is;
    //   "NoSizingPass"  no walk to size the progress first, even with a callback;
    //   "DryRun"        select as a real run would, copy and create nothing;
    //                   SyncedFiles lists what a real run would copy.
    bool SyncTreeUpload(XString& localDirRoot, XString& remoteDirRoot, int mode, bool recurse,
                        ProgressEvent* progress = nullptr);
    bool SyncTreeDownload(XString& remoteDirRoot, XString& localDirRoot, int mode, bool recurse,
                          ProgressEvent* progress = nullptr);

  private:
    friend class ClsScpTestAccess;  // white-box tests of the protocol steps
    class ScpChannel;
    class RemoteWalk;
    class LocalWalk;
    struct NameFilters;
    struct UploadTarget;
    struct PendingAcks;

    // Uncommon options of this component (case-insensitive substrings).
    bool hasOption(const char* keyword) const;
    // Logs "No SSH object has been set..." and the failure when nothing is bound.
    bool requireSsh(LogBase& log);

    // command channel
    bool setEnvironmentVars(int channel, SocketParams& sp, LogBase& log);
    // The remote scp of one call on its own channel: open and SendEnv, then
    // the exec of `prefix` + argument. Each logs the call's failure itself.
    enum class Quoting { Quoted, Bare };
    static Quoting quotingFor(const XString& text);  // Quoted when it holds a blank
    bool openScpChannel(ScpChannel& channel, SocketParams& sp, LogBase& log);
    bool execRemoteScp(ScpChannel& channel, const char* prefix, const XString& argument,
                       Quoting quoting, SocketParams& sp, LogBase& log);
    bool startRemoteScp(ScpChannel& channel, const char* prefix, const XString& argument,
                        Quoting quoting, SocketParams& sp, LogBase& log);

    // protocol records and acknowledgements; the spec'd readers take whatever
    // has been received, the framed ones stop after the line feed so that
    // records sent back to back are read one at a time
    enum class Framing { AllReceived, ThroughLineFeed };
    bool readScpResponse(unsigned channel, StringBuffer& line, SocketParams& sp, LogBase& log);
    bool readLine(unsigned channel, StringBuffer& line, Framing framing, SocketParams& sp,
                  LogBase& log);
    bool waitForGo(DataBuffer& buf, OutputDataBuffer& out, unsigned channel, SocketParams& sp,
                   LogBase& log);
    bool readAck(DataBuffer& buf, OutputDataBuffer& out, unsigned channel, Framing framing,
                 SocketParams& sp, LogBase& log);

    // sending side
    bool openLocalFile(XString& localPath, const char* name, _vqFileDataSource& source,
                       ScpFileInfo& info, LogBase& log);
    bool sendFile(int channel, _vqDataSource& source, bool unused, ScpFileInfo& info,
                  SocketParams& sp, LogBase& log);
    bool sendFileTimes(int channel, ScpFileInfo& info, SocketParams& sp, LogBase& log);
    bool sendFileInfo(int channel, ScpFileInfo& info, SocketParams& sp, LogBase& log);
    // A file's bytes and the 0 byte that ends them.
    bool sendFileData(int channel, _vqDataSource& source, ScpFileInfo& info, SocketParams& sp,
                      LogBase& log);
    bool sendDirInfo(int channel, int permissions, XString& dirName, SocketParams& sp,
                     LogBase& log);
    bool sendScpData(int channel, DataBuffer& data, SocketParams& sp, LogBase& log);
    bool sendByte(unsigned channel, char byte, SocketParams& sp, LogBase& log);
    // With "Pipelined": the lines of a file go out without waiting for the
    // answers still owed; the data only once every answer, the C line's
    // included, has been read.
    bool sendFileAhead(int channel, _vqDataSource& source, ScpFileInfo& info, PendingAcks& acks,
                       SocketParams& sp, LogBase& log);
    bool drainAcks(unsigned channel, PendingAcks& acks, SocketParams& sp, LogBase& log);

    // receiving side
    bool receiveFileInfo(unsigned channel, ScpFileInfo& info, SocketParams& sp, LogBase& log);
    // How a record is read: the framing, whether the 0x00 that answers a "T"
    // line already went out ahead of it, and (filled in) whether one came.
    struct RecordRead {
        Framing framing = Framing::AllReceived;
        bool timesAnsweredAhead = false;
        bool sawTimes = false;
    };
    bool readRecord(unsigned channel, ScpFileInfo& info, RecordRead& how, SocketParams& sp,
                    LogBase& log);
    bool parseHeader(StringBuffer& header, ScpFileInfo& info, LogBase& log);
    void parseTimes(const StringBuffer& timesLine, ScpFileInfo& info, LogBase& log);
    bool receiveFile(unsigned channel, _vqOutput& out, bool resetProgress, ScpFileInfo& info,
                     SocketParams& sp, LogBase& log);
    bool receiveFileData(unsigned channel, _vqOutput& out, ScpFileInfo& info, SocketParams& sp,
                         LogBase& log);
    bool streamScpDataToFile(unsigned channel, XString& localPath, ScpFileInfo& info,
                             SocketParams& sp, LogBase& log);
    bool abortRemainder(unsigned channel, SocketParams& sp, LogBase& log);

    // single transfers: the "scp -t" session of one file, shared by UploadFile
    // and uploadData, and the "scp -pf" session of one download into an output
    bool uploadSession(_vqDataSource& source, ScpFileInfo& info, const UploadTarget& target,
                       SocketParams& sp, LogBase& log);
    bool uploadData(XString& remoteFilePath, DataBuffer& data, ProgressEvent* progress);
    bool downloadData(XString& remotePath, DataBuffer& out, ProgressEvent* progress);

    // selection rules; listSyncedFile adds a copied file to SyncedFiles
    void listSyncedFile(const ScpFileInfo& info);
    bool needToDownload(int mode, XString& localRoot, ScpFileInfo& remote, XString& localPath,
                        LogBase& log);
    bool needToUpload(int mode, XString& localFilePath, XString& localRoot,
                      StringHashMap* remoteFiles, LogBase& log);
    bool skipFromMustMatch(XString& name, ExtPtrArraySb& mustMatch, ExtPtrArraySb& mustNotMatch,
                           LogBase& log);

    // tree traversals
    bool doRemoteTraverse(bool bComputeMode, XString& remoteDir, XString& localDir, int mode,
                          bool recurse, StringHashMap* remoteFiles, SocketParams& sp, LogBase& log);
    bool consumeRecursiveResponse(bool bComputeMode, unsigned channel, int mode, bool recurse,
                                  XString& localDir, int64_t& totalByteCount,
                                  unsigned& totalNumDirs, StringHashMap* remoteFiles,
                                  SocketParams& sp, LogBase& log);
    bool doLocalTraverse(bool computeOnly, unsigned channel, XString& localRoot,
                         XString& remoteRoot, int mode, bool recurse, StringHashMap* remoteFiles,
                         SocketParams& sp, LogBase& log);
    bool recursiveUpload(XString& localRoot, XString& remoteRoot, int mode, bool recurse,
                         StringHashMap* remoteFiles, SocketParams& sp, LogBase& log);

    XString sendEnv;
    XString syncMustMatch;
    XString syncMustNotMatch;
    XString syncMustMatchDir;
    XString syncMustNotMatchDir;
    StringBuffer syncedFiles;
    StringBuffer unixPermOverride;
    bool useOverride = false;
    uint32_t overridePerms = 0644;
    ClsSsh* ssh = nullptr;
};

}  // namespace scpkit
