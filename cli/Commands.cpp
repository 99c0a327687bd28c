#include "cli/Commands.h"

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <scpkit/base/DataBuffer.h>
#include <scpkit/base/XString.h>
#include <scpkit/scp/ClsScp.h>
#include <scpkit/ssh/ClsSsh.h>
#include "cli/CallLog.h"
#include "cli/Connection.h"
#include "cli/ExitStatus.h"
#include "cli/Interrupt.h"
#include "cli/LogSummary.h"
#include "cli/ProgressBar.h"
#include "cli/RemoteDirectory.h"
#include "cli/SafeText.h"

namespace scpkit::cli {

namespace {

constexpr unsigned kPollIntervalMs = 100;  // how soon Ctrl-C is noticed

const char* commandName(Command c) {
    switch (c) {
        case Command::Put:
            return "put";
        case Command::Get:
            return "get";
        case Command::Push:
            return "push";
        case Command::Pull:
            return "pull";
    }
    return "?";
}

std::string baseName(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t regularFileSize(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return static_cast<int64_t>(st.st_size);
}

bool readAll(int fd, DataBuffer& out) {
    char buf[64 * 1024];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        out.append(buf, static_cast<size_t>(n));
    }
}

bool writeAll(int fd, const unsigned char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void printError(const std::string& line) {
    std::fprintf(stderr, "scpkit: %s\n", line.c_str());
}

// Releases the SSH object's creation reference at the end of the run.
struct SshHolder {
    ClsSsh* ssh = ClsSsh::createNewCls();
    ~SshHolder() {
        if (ssh) {
            ssh->Disconnect();
            ssh->decRefCount();
        }
    }
};

class Transfer {
  public:
    explicit Transfer(const Options& o) : m_o(o), m_callLog(o.logFile) {}

    int run() {
        if (!m_callLog.ok()) {
            printError("cannot open the log file " + m_o.logFile + ": " + std::strerror(errno));
            return kExitUsage;
        }
        int status = prepareLocalSide();
        if (status != kExitOk) return status;

        SshHolder holder;
        if (!holder.ssh) {
            printError("out of memory");
            return kExitTransferFailed;
        }
        std::string message;
        status = connectAndLogin(*holder.ssh, m_o, m_callLog, message);
        if (status != kExitOk) {
            printError(message + (status == kExitUsage ? "" : logHint()));
            return status;
        }
        if (m_o.command == Command::Push) {
            std::string error;
            bool made = ensureRemoteDirectory(*holder.ssh, m_remotePath, error);
            m_callLog.record(*holder.ssh);
            if (!made) {
                printError("push: cannot make the remote directory " +
                           stripControlChars(m_remotePath) + ": " + stripControlChars(error) +
                           logHint());
                return kExitTransferFailed;
            }
        }
        ClsScp scp;
        configure(scp, *holder.ssh);

        bool drawBar = m_o.progress == ProgressChoice::Always ||
                       (m_o.progress == ProgressChoice::Auto && !m_o.quiet && isatty(2));
        ProgressBar bar(drawBar);
        // A tree download given a callback first walks the remote tree to
        // size the bar, one round trip per file: without a bar that walk is
        // skipped, and Ctrl-C then ends the program at once.
        m_callback = drawBar || m_o.command != Command::Pull ? &bar : nullptr;
        setInterruptAbortable(m_callback != nullptr);
        bool ok = transfer(scp, bar);
        setInterruptAbortable(false);
        bar.finish();
        m_callLog.record(scp);
        if (!ok && m_callback && !bar.unfinishedDownload().empty()) {
            // A file cut short would look newer than its source to the next
            // pull and never be fetched again.
            ::unlink(bar.unfinishedDownload().c_str());
        }
        return report(scp, ok);
    }

  private:
    // Local checks that need no connection, so mistakes fail fast.
    int prepareLocalSide() {
        switch (m_o.command) {
            case Command::Put:
                if (m_o.readsStdin()) {
                    if (!readAll(0, m_stdinData)) {
                        printError(std::string("cannot read standard input: ") +
                                   std::strerror(errno));
                        return kExitTransferFailed;
                    }
                } else if (isDirectory(m_o.local)) {
                    printError(stripControlChars(m_o.local) +
                               " is a directory: push copies directories");
                    return kExitTransferFailed;
                } else if (regularFileSize(m_o.local) < 0 ||
                           ::access(m_o.local.c_str(), R_OK) != 0) {
                    printError("not a readable file: " + stripControlChars(m_o.local));
                    return kExitTransferFailed;
                }
                m_remotePath = m_o.remote.path;
                if (m_remotePath.empty() || m_remotePath.back() == '/') {
                    m_remotePath += baseName(m_o.local);
                }
                break;
            case Command::Get:
                m_localPath = m_o.local;
                if (!m_o.writesStdout() && isDirectory(m_localPath)) {
                    std::string name = baseName(m_o.remote.path);
                    if (name.empty()) {
                        printError("get: the remote path names no file: " +
                                   stripControlChars(m_o.remote.path));
                        return kExitUsage;
                    }
                    m_localPath += (m_localPath.back() == '/' ? "" : "/") + name;
                }
                m_remotePath = m_o.remote.path;
                break;
            case Command::Push:
                if (!isDirectory(m_o.local)) {
                    printError("not a directory: " + stripControlChars(m_o.local));
                    return kExitTransferFailed;
                }
                m_localPath = trimSlashes(m_o.local);
                m_remotePath = m_o.remote.path.empty() ? "." : m_o.remote.path;
                break;
            case Command::Pull:
                m_localPath = trimSlashes(m_o.local);
                m_remotePath = m_o.remote.path.empty() ? "." : m_o.remote.path;
                break;
        }
        return kExitOk;
    }

    static std::string trimSlashes(std::string path) {
        while (path.size() > 1 && path.back() == '/') path.pop_back();
        return path;
    }

    void configure(ClsScp& scp, ClsSsh& ssh) {
        scp.UseSsh(ssh);
        m_callLog.record(scp);
        scp.put_PollIntervalMs(kPollIntervalMs);
        scp.put_PercentScale(ProgressBar::kScale);
        if (m_o.verboseLog) scp.put_VerboseLogging(true);
        if (!m_o.debugLogFile.empty()) {
            XString path(m_o.debugLogFile.c_str());
            scp.put_DebugLogFilePath(path);
        }
        auto set = [&scp](void (ClsScp::*put)(XString&), const std::string& value) {
            if (value.empty()) return;
            XString x(value.c_str());
            (scp.*put)(x);
        };
        set(&ClsScp::put_SendEnv, m_o.sendEnvJson);
        set(&ClsScp::put_UnixPermOverride, m_o.chmod);
        set(&ClsScp::put_SyncMustMatch, m_o.match);
        set(&ClsScp::put_SyncMustNotMatch, m_o.exclude);
        set(&ClsScp::put_SyncMustMatchDir, m_o.matchDir);
        set(&ClsScp::put_SyncMustNotMatchDir, m_o.excludeDir);
        if (m_o.filenameOnly) {
            XString uncommon("FilenameOnly");
            scp.put_UncommonOptions(uncommon);
        }
    }

    bool transfer(ClsScp& scp, ProgressBar& bar) {
        XString remote(m_remotePath.c_str());
        XString local(m_localPath.c_str());
        switch (m_o.command) {
            case Command::Put:
                if (m_o.readsStdin()) {
                    bar.setLabel(baseName(m_remotePath));
                    bar.setExactTotal(static_cast<int64_t>(m_stdinData.getSize()));
                    return scp.UploadBinary(remote, m_stdinData, &bar);
                } else {
                    XString file(m_o.local.c_str());
                    bar.setLabel(baseName(m_o.local));
                    bar.setExactTotal(regularFileSize(m_o.local));
                    return scp.UploadFile(file, remote, &bar);
                }
            case Command::Get:
                bar.setLabel(baseName(m_remotePath));
                if (m_o.writesStdout()) return scp.DownloadBinary(remote, m_stdoutData, &bar);
                bar.setDoneProbe([path = m_localPath] { return regularFileSize(path); });
                return scp.DownloadFile(remote, local, &bar);
            case Command::Push:
                bar.setLocalRoot(m_localPath);
                return scp.SyncTreeUpload(local, remote, m_o.syncMode, m_o.recurse, &bar);
            case Command::Pull:
                bar.setLocalRoot(m_localPath);
                return scp.SyncTreeDownload(remote, local, m_o.syncMode, m_o.recurse, m_callback);
        }
        return false;
    }

    int report(ClsScp& scp, bool ok) {
        bool tree = m_o.command == Command::Push || m_o.command == Command::Pull;
        if (tree && !m_o.quiet) {
            // What was copied is listed even after a failure: it did happen.
            XString synced;
            scp.get_SyncedFiles(synced);
            if (!synced.isEmpty()) {
                std::string list = synced.getUtf8();
                if (list.back() != '\n') list += '\n';
                std::fwrite(list.data(), 1, list.size(), stdout);
                std::fflush(stdout);
            }
        }
        if (!ok) {
            if (interruptRequested()) {
                printError(std::string(commandName(m_o.command)) + " interrupted");
                return kExitInterrupted;
            }
            XString log;
            scp.get_LastErrorText(log);
            std::string reason = failureReason(log.getUtf8());
            printError(std::string(commandName(m_o.command)) + " " +
                       stripControlChars(m_o.remoteText) + " failed" +
                       (reason.empty() ? "" : ": " + reason) + logHint());
            return kExitTransferFailed;
        }
        if (m_o.writesStdout() && !writeAll(1, m_stdoutData.getData2(), m_stdoutData.getSize())) {
            printError(std::string("cannot write standard output: ") + std::strerror(errno));
            return kExitTransferFailed;
        }
        return kExitOk;
    }

    std::string logHint() const {
        if (m_callLog.enabled()) return " (full log in " + m_o.logFile + ")";
        return " (run again with --log FILE for the full log)";
    }

    const Options& m_o;
    CallLog m_callLog;
    std::string m_localPath;
    std::string m_remotePath;
    DataBuffer m_stdinData;
    DataBuffer m_stdoutData;
    ProgressEvent* m_callback = nullptr;
};

}  // namespace

int runCommand(const Options& options) {
    return Transfer(options).run();
}

}  // namespace scpkit::cli
