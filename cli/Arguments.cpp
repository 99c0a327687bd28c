#include "cli/Arguments.h"

#include <algorithm>

#include <scpkit/ssh/JumpHosts.h>

#include "cli/EnvJson.h"
#include "cli/NumberArguments.h"
#include "cli/RemoteGlob.h"
#include "cli/SshOptions.h"
#include "cli/SyncModes.h"

namespace scpkit::cli {

namespace {

constexpr int64_t kDayMs = 24LL * 3600 * 1000;
// scp's unit for -l is Kbit/s; 100 Gbit/s is beyond any link worth limiting.
constexpr int64_t kMaxLimitKbits = 100000000;

std::string joinPatterns(const std::vector<std::string>& parts) {
    std::string joined;
    for (const std::string& p : parts) {
        if (!joined.empty()) joined += ";";
        joined += p;
    }
    return joined;
}

bool isOctalPermission(const std::string& text) {
    if (text.empty() || text.size() > 4) return false;
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '7'; });
}

Command commandNamed(const std::string& name) {
    if (name == "get") return Command::Get;
    if (name == "push") return Command::Push;
    if (name == "pull") return Command::Pull;
    return Command::Put;
}

bool looksRemote(const std::string& text) {
    RemoteTarget ignored;
    std::string error;
    return parseRemoteTarget(text, ignored, error);
}

std::string addRemote(const std::string& text, Options& o) {
    RemoteTarget target;
    std::string error;
    if (!parseRemoteTarget(text, target, error)) return error;
    if (!o.remote.empty() && (target.host != o.server().host || target.user != o.server().user)) {
        return "all remote files must be on one server: '" + text + "' is not on '" +
               formatRemoteTarget({o.server().user, o.server().host, ""}) + "'";
    }
    o.remote.push_back(target);
    o.remoteText.push_back(text);
    return "";
}

// put and get take several sources and one target; push and pull two paths.
std::string checkPaths(const Arguments& a, Options& o) {
    const std::vector<std::string>& p = a.positionals;
    const std::string name = a.command;
    if (o.isTree() && p.size() != 2) {
        return name + " takes two paths: " +
               (o.command == Command::Push ? "LOCAL_DIR [USER@]HOST:REMOTE_DIR"
                                           : "[USER@]HOST:REMOTE_DIR LOCAL_DIR");
    }
    if (p.size() < 2) return name + " needs a source and a target";
    std::vector<std::string> sources(p.begin(), p.end() - 1);
    const std::string& target = p.back();
    bool remoteSources = o.command == Command::Get || o.command == Command::Pull;
    for (const std::string& s : remoteSources ? std::vector<std::string>{target} : sources) {
        if (looksRemote(s))
            return name + ": '" + s + "' names a remote path where a local one goes";
    }
    for (const std::string& s : remoteSources ? sources : std::vector<std::string>{target}) {
        std::string error = addRemote(s, o);
        if (!error.empty()) return error;
    }
    o.local = remoteSources ? std::vector<std::string>{target} : sources;
    if (o.isTree()) return o.local.front() == "-" ? name + " needs a local directory, not -" : "";

    bool several = p.size() > 2;
    if (std::find(o.local.begin(), o.local.end(), "-") != o.local.end() && several) {
        return name + " - moves one file: no other " + (o.isUpload() ? "source" : "target");
    }
    if (o.command == Command::Put) {
        std::string& path = o.remote.front().path;
        if (o.readsStdin() && (path.empty() || path.back() == '/')) {
            return "put - needs a remote file name, not a directory";
        }
        if (several && !path.empty() && path.back() != '/') path += '/';
        return "";
    }
    for (size_t i = 0; i < o.remote.size(); ++i) {
        const std::string& path = o.remote[i].path;
        if (path.empty() || path.back() == '/') {
            return "get needs the path of a remote file, got '" + o.remoteText[i] + "'";
        }
        std::string error = checkRemoteGlob(path);
        if (!error.empty()) return error;
        if (o.writesStdout() && isRemoteGlob(path)) {
            return "get - writes one file; '" + o.remoteText[i] + "' may match several";
        }
    }
    return "";
}

std::string checkConnection(ConnectionArguments a, ConnectionOptions& c) {
    std::string error = applySshOptions(a);
    if (!error.empty()) return error;
    int64_t n = 0;
    if (!a.port.empty()) {
        if (!parseWholeNumber(a.port, "--port", 1, 65535, n, error)) return error;
        c.port = static_cast<int>(n);
    }
    if (!a.connectTimeout.empty()) {
        if (!parseDuration(a.connectTimeout, "--connect-timeout", 1, kDayMs, n, error))
            return error;
        c.connectTimeoutMs = static_cast<int>(n);
    }
    if (!a.stallTimeout.empty()) {
        if (!parseDuration(a.stallTimeout, "--stall-timeout", 0, kDayMs, n, error)) return error;
        c.stallTimeoutMs = static_cast<int>(n);
    }
    if (!a.passphraseEnv.empty() && a.identity.empty()) {
        return "--passphrase-env goes with --identity";
    }
    if (!a.passwordEnv.empty() && !a.identity.empty()) {
        return "--password-env and --identity are two ways to log in: give one";
    }
    if (!a.hostKeyCheck.empty()) {
        const std::string& h = a.hostKeyCheck;
        if (h != "ask" && h != "yes" && h != "accept-new" && h != "no")
            return "--host-key-check wants ask, yes, accept-new or no, got '" + h + "'";
        c.hostKeyCheck = h;
    }
    if (a.cipher.find_first_of(" \t") != std::string::npos) {
        return "--cipher wants names separated by commas, got '" + a.cipher + "'";
    }
    std::vector<JumpHost> hops;
    if (!parseJumpHosts(a.jump, hops, error)) return "-J: " + error;
    if (!a.configFile.empty() && a.noSshConfig) {
        return "--ssh-config and --no-ssh-config contradict each other";
    }
    c.user = a.user;
    c.jumpHosts = a.jump;
    c.configFile = a.configFile == "none" ? "" : a.configFile;
    c.compression = a.compress ? "yes" : a.compression;
    c.batchMode = a.batchMode;
    c.verbose = a.verbose;
    c.identity = a.identity;
    c.passphraseEnv = a.passphraseEnv;
    c.passwordEnv = a.passwordEnv;
    c.knownHosts = a.knownHosts;
    c.ciphers = a.cipher;
    c.useSshConfig = !a.noSshConfig && a.configFile != "none";
    return "";
}

std::string checkTree(const Arguments& a, Options& o) {
    TreeOptions& t = o.tree;
    t.recurse = !a.noRecurse;
    t.dryRun = a.dryRun;
    t.match = joinPatterns(a.match);
    t.exclude = joinPatterns(a.exclude);
    t.matchDir = joinPatterns(a.matchDir);
    t.excludeDir = joinPatterns(a.excludeDir);
    if (!o.isTree()) {
        bool filters =
            !a.match.empty() || !a.exclude.empty() || !a.matchDir.empty() || !a.excludeDir.empty();
        if (!a.mode.empty() || a.noRecurse || a.dryRun || filters || !a.jobs.empty()) {
            return "--mode, --no-recurse, --dry-run, --jobs and the --match/--exclude filters "
                   "apply to push and pull";
        }
        return "";
    }
    std::string error;
    int64_t jobs = t.jobs;
    if (!a.jobs.empty() && !parseWholeNumber(a.jobs, "--jobs", 1, kMaxTreeJobs, jobs, error))
        return error;
    t.jobs = static_cast<int>(jobs);
    SyncDirection dir = o.isUpload() ? SyncDirection::Upload : SyncDirection::Download;
    if (!a.mode.empty() && !parseSyncMode(a.mode, dir, t.syncMode)) {
        return "unknown --mode '" + a.mode + "' for " + a.command + " (see --help)";
    }
    return "";
}

std::string checkTransfer(const Arguments& a, Options& o) {
    TransferOptions& t = o.transfer;
    if (!a.chmod.empty() && !o.isUpload()) return "--chmod applies to put and push";
    if (!a.chmod.empty() && !isOctalPermission(a.chmod)) {
        return "--chmod wants octal permissions such as 644 or 0755, got '" + a.chmod + "'";
    }
    t.chmod = a.chmod;
    if (a.filenameOnly && o.command != Command::Put) return "--filename-only applies to put";
    t.filenameOnly = a.filenameOnly;
    std::string error;
    if (!a.env.empty() && !envPairsToJson(a.env, t.sendEnvJson, error)) return error;
    if (!a.limit.empty()) {
        int64_t kbits = 0;
        if (!parseWholeNumber(a.limit, "--limit", 1, kMaxLimitKbits, kbits, error)) return error;
        t.limitBytesPerSecond = kbits * 1000 / 8;
    }
    return "";
}

std::string checkOutput(const Arguments& a, OutputOptions& out) {
    if (a.progress && a.noProgress) return "--progress and --no-progress contradict each other";
    if (a.progress && a.quiet) return "--progress and --quiet contradict each other";
    out.logFile = a.logFile;
    out.verboseLog = a.verboseLog;
    out.debugLogFile = a.debugLogFile;
    out.quiet = a.quiet;
    out.progress = a.progress     ? ProgressChoice::Always
                   : a.noProgress ? ProgressChoice::Never
                                  : ProgressChoice::Auto;
    return "";
}

}  // namespace

std::string checkArguments(const Arguments& args, Options& o) {
    o = Options();
    o.command = commandNamed(args.command);
    std::string error = checkPaths(args, o);
    if (error.empty()) error = checkConnection(args.connection, o.connection);
    if (error.empty()) error = checkTree(args, o);
    if (error.empty()) error = checkTransfer(args, o);
    if (error.empty()) error = checkOutput(args, o.output);
    return error;
}

std::vector<std::string> patternWarnings(const Arguments& args) {
    std::vector<std::string> lines;
    const std::pair<const char*, const std::vector<std::string>*> lists[] = {
        {"--match", &args.match},
        {"--exclude", &args.exclude},
        {"--match-dir", &args.matchDir},
        {"--exclude-dir", &args.excludeDir}};
    for (const auto& [option, patterns] : lists) {
        for (const std::string& p : *patterns) {
            if (p.find('/') == std::string::npos) continue;
            lines.push_back(std::string(option) + " '" + p +
                            "' matches nothing: patterns are matched against names, not paths");
        }
    }
    return lines;
}

}  // namespace scpkit::cli
