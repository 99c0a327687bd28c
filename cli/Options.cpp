#include "cli/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

#include "cli/EnvJson.h"
#include "cli/ExitStatus.h"
#include "cli/SyncModes.h"

#ifndef SCPKIT_VERSION
#define SCPKIT_VERSION "unknown"
#endif

namespace scpkit::cli {

namespace {

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

std::string helpFooter() {
    std::ostringstream f;
    f << "The commands in full:\n"
         "  put  LOCAL_FILE|-  [USER@]HOST:REMOTE_PATH   upload a file (- reads standard input)\n"
         "  get  [USER@]HOST:REMOTE_PATH  LOCAL_FILE|-   download a file (- writes standard "
         "output)\n"
         "  push LOCAL_DIR  [USER@]HOST:REMOTE_DIR       bring a remote tree up to date\n"
         "  pull [USER@]HOST:REMOTE_DIR  LOCAL_DIR       bring a local tree up to date\n"
         "push and pull print the files they copied, one per line.\n\n"
         "Modes for push and pull (--mode NAME, or the library's number for the direction):\n";
    for (const SyncModeName& m : syncModeNames()) {
        f << "  " << m.name << std::string(16 - std::string(m.name).size(), ' ') << m.meaning
          << " (pull " << m.downloadMode << ", push " << m.uploadMode << ")\n";
    }
    f << "\nExit status: 0 success, 1 transfer failed, 2 usage error,\n"
         "3 connection, host key or authentication failure, 130 interrupted.\n\n"
         "Examples:\n"
         "  scpkit put report.pdf alice@server:/srv/reports/\n"
         "  scpkit get server:logs/app.log - | grep ERROR\n"
         "  scpkit push --mode newer --exclude '*.tmp' site/ server:/var/www/site\n"
         "  scpkit pull -P 2222 '[2001:db8::5]:backup' ./backup\n";
    return f.str();
}

ParseResult usageError(const std::string& message) {
    ParseResult r;
    r.kind = ParseResult::Exit;
    r.exitStatus = kExitUsage;
    r.err = "scpkit: " + message + "\nRun 'scpkit --help' for usage.\n";
    return r;
}

}  // namespace

ParseResult parseCommandLine(const std::vector<std::string>& args, Options& o) {
    CLI::App app{"scpkit copies files and directory trees to and from SSH servers.", "scpkit"};
    app.set_version_flag("--version", "scpkit " SCPKIT_VERSION);
    app.require_subcommand(1);
    app.fallthrough();  // options may also follow the command
    app.footer(helpFooter());

    std::vector<std::string> env, match, exclude, matchDir, excludeDir;
    std::string mode;
    bool noSshConfig = false, noRecurse = false, progressOn = false, progressOff = false;

    const std::string conn = "Connection";
    app.add_option("-P,--port", o.port, "Port of the SSH server (default: ssh config, else 22)")
        ->check(CLI::Range(1, 65535))
        ->group(conn)
        ->type_name("N");
    app.add_option("-i,--identity", o.identity, "Log in with this private key file")
        ->group(conn)
        ->type_name("FILE");
    auto* passphrase = app.add_option("--passphrase-env", o.passphraseEnv,
                                      "Environment variable holding the key's passphrase")
                           ->group(conn)
                           ->type_name("VAR");
    auto* password = app.add_option("--password-env", o.passwordEnv,
                                    "Log in with the password held in this environment variable")
                         ->group(conn)
                         ->type_name("VAR");
    app.add_option("--known-hosts", o.knownHosts, "known_hosts file (default ~/.ssh/known_hosts)")
        ->group(conn)
        ->type_name("FILE");
    app.add_option("--host-key-check", o.hostKeyCheck,
                   "yes (default), accept-new (remember unknown hosts) or no")
        ->check(CLI::IsMember({"yes", "accept-new", "no"}))
        ->group(conn)
        ->type_name("POLICY");
    app.add_flag("--no-ssh-config", noSshConfig, "Do not read ~/.ssh/config")->group(conn);
    app.add_option("--connect-timeout", o.connectTimeoutMs, "Connection timeout in milliseconds")
        ->check(CLI::NonNegativeNumber)
        ->group(conn)
        ->type_name("MS");
    app.add_option("--stall-timeout", o.stallTimeoutMs,
                   "Fail when no data moves for this many milliseconds (0: never)")
        ->check(CLI::NonNegativeNumber)
        ->group(conn)
        ->type_name("MS");
    passphrase->needs("--identity");
    password->excludes("--identity");

    const std::string treeGroup = "push and pull";
    app.add_option("--mode", mode, "What to copy: a mode name (below) or number; default all")
        ->group(treeGroup)
        ->type_name("MODE");
    app.add_flag("--no-recurse", noRecurse, "Only the files directly in the directory")
        ->group(treeGroup);
    app.add_option("--match", match, "Copy only files matching these patterns (a;b)")
        ->allow_extra_args(false)
        ->take_all()
        ->group(treeGroup)
        ->type_name("PATTERNS");
    app.add_option("--exclude", exclude, "Skip files matching these patterns")
        ->allow_extra_args(false)
        ->take_all()
        ->group(treeGroup)
        ->type_name("PATTERNS");
    app.add_option("--match-dir", matchDir, "Enter only directories matching these patterns")
        ->allow_extra_args(false)
        ->take_all()
        ->group(treeGroup)
        ->type_name("PATTERNS");
    app.add_option("--exclude-dir", excludeDir, "Skip directories matching these patterns")
        ->allow_extra_args(false)
        ->take_all()
        ->group(treeGroup)
        ->type_name("PATTERNS");

    const std::string xfer = "Transfer";
    app.add_option("--env", env, "Set NAME=VALUE in the remote scp's environment")
        ->allow_extra_args(false)
        ->take_all()
        ->group(xfer)
        ->type_name("NAME=VALUE");
    app.add_option("--chmod", o.chmod, "Give uploaded files these octal permissions (e.g. 0640)")
        ->group(xfer)
        ->type_name("OCTAL");
    app.add_flag("--filename-only", o.filenameOnly,
                 "put: name only the file, not its directory, to the remote scp")
        ->group(xfer);

    const std::string out = "Output";
    app.add_option("--log", o.logFile, "Append the log of every library call to FILE")
        ->group(out)
        ->type_name("FILE");
    app.add_flag("--verbose-log", o.verboseLog, "Write detailed logs")->group(out);
    app.add_option("--debug-log", o.debugLogFile, "Write the library's log to FILE as it happens")
        ->group(out)
        ->type_name("FILE");
    auto* progOn = app.add_flag("--progress", progressOn, "Always draw a progress bar")->group(out);
    app.add_flag("--no-progress", progressOff, "Never draw a progress bar")
        ->excludes(progOn)
        ->group(out);
    app.add_flag("-q,--quiet", o.quiet, "No progress bar and no list of copied files")
        ->excludes(progOn)
        ->group(out);

    std::string first, second;
    struct Sub {
        const char* name;
        Command command;
        const char* help;
        const char* firstName;
        const char* secondName;
    };
    const Sub subs[] = {
        {"put", Command::Put, "Upload a file (LOCAL_FILE - reads standard input)", "LOCAL_FILE",
         "[USER@]HOST:REMOTE_PATH"},
        {"get", Command::Get, "Download a file (LOCAL_FILE - writes standard output)",
         "[USER@]HOST:REMOTE_PATH", "LOCAL_FILE"},
        {"push", Command::Push, "Bring a remote directory tree up to date from a local one",
         "LOCAL_DIR", "[USER@]HOST:REMOTE_DIR"},
        {"pull", Command::Pull, "Bring a local directory tree up to date from a remote one",
         "[USER@]HOST:REMOTE_DIR", "LOCAL_DIR"},
    };
    for (const Sub& s : subs) {
        CLI::App* sub = app.add_subcommand(s.name, s.help);
        sub->add_option(s.firstName, first)->required();
        sub->add_option(s.secondName, second)->required();
    }

    // A scalar option given twice takes its last value, so a script can
    // override what an alias or wrapper put first.
    for (CLI::Option* opt : app.get_options()) {
        if (opt->get_expected_max() == 1)
            opt->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    }

    std::ostringstream outStream, errStream;
    app.failure_message(
        [](const CLI::App*, const CLI::Error& e) { return std::string(e.what()) + "\n"; });
    try {
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        int status = app.exit(e, outStream, errStream);
        if (status == 0) {
            ParseResult r;
            r.kind = ParseResult::Exit;
            r.out = outStream.str();
            return r;
        }
        std::string message = errStream.str();
        while (!message.empty() && message.back() == '\n') message.pop_back();
        return usageError(message);
    }

    for (const Sub& s : subs) {
        if (app.got_subcommand(s.name)) o.command = s.command;
    }
    bool upload = o.command == Command::Put || o.command == Command::Push;
    bool tree = o.command == Command::Push || o.command == Command::Pull;
    o.local = upload ? first : second;
    o.remoteText = upload ? second : first;
    std::string error;
    if (!parseRemoteTarget(o.remoteText, o.remote, error)) return usageError(error);

    o.useSshConfig = !noSshConfig;
    o.recurse = !noRecurse;
    o.progress = progressOn    ? ProgressChoice::Always
                 : progressOff ? ProgressChoice::Never
                               : ProgressChoice::Auto;
    o.match = joinPatterns(match);
    o.exclude = joinPatterns(exclude);
    o.matchDir = joinPatterns(matchDir);
    o.excludeDir = joinPatterns(excludeDir);

    if (!tree) {
        if (!mode.empty() || noRecurse || !match.empty() || !exclude.empty() || !matchDir.empty() ||
            !excludeDir.empty()) {
            return usageError(
                "--mode, --no-recurse and the --match/--exclude filters apply to push and pull");
        }
    } else {
        SyncDirection dir = upload ? SyncDirection::Upload : SyncDirection::Download;
        if (!mode.empty() && !parseSyncMode(mode, dir, o.syncMode)) {
            return usageError("unknown --mode '" + mode + "' for " + (upload ? "push" : "pull") +
                              " (see --help)");
        }
        if (o.local == "-") return usageError("push and pull need a local directory, not -");
    }
    if (!o.chmod.empty() && !upload) return usageError("--chmod applies to put and push");
    if (!o.chmod.empty() && !isOctalPermission(o.chmod)) {
        return usageError("--chmod wants octal permissions such as 644 or 0755, got '" + o.chmod +
                          "'");
    }
    if (o.filenameOnly && o.command != Command::Put) {
        return usageError("--filename-only applies to put");
    }
    if (!env.empty() && !envPairsToJson(env, o.sendEnvJson, error)) return usageError(error);

    if (o.readsStdin() && (o.remote.path.empty() || o.remote.path.back() == '/')) {
        return usageError("put - needs a remote file name, not a directory");
    }
    if (o.command == Command::Get && o.remote.path.empty()) {
        return usageError("get needs the path of a remote file");
    }
    return ParseResult();
}

}  // namespace scpkit::cli
