#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "cli/Arguments.h"
#include "cli/ExitStatus.h"
#include "cli/HelpText.h"
#include "cli/SafeText.h"

#ifndef SCPKIT_VERSION
#define SCPKIT_VERSION "unknown"
#endif

namespace scpkit::cli {

namespace {

// Repeatable options whose values add up (each may also hold a;b lists).
CLI::Option* addList(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                     const std::string& help, const std::string& group, const char* typeName) {
    return app.add_option(name, values, help)
        ->allow_extra_args(false)
        ->take_all()
        ->group(group)
        ->type_name(typeName);
}

// The place for every option about reaching and logging in to the server.
void declareConnectionOptions(CLI::App& app, ConnectionArguments& c) {
    const std::string g = "Connection";
    app.add_option("-P,--port", c.port, "Port of the SSH server (default: ssh config, else 22)")
        ->group(g)
        ->type_name("N");
    app.add_option("-i,--identity", c.identity, "Log in with this private key file")
        ->group(g)
        ->type_name("FILE");
    app.add_option("--passphrase-env", c.passphraseEnv,
                   "Environment variable holding the key's passphrase")
        ->group(g)
        ->type_name("VAR");
    app.add_option("--password-env", c.passwordEnv,
                   "Log in with the password held in this environment variable")
        ->group(g)
        ->type_name("VAR");
    app.add_option("--known-hosts", c.knownHosts, "known_hosts file (default ~/.ssh/known_hosts)")
        ->group(g)
        ->type_name("FILE");
    app.add_option("--host-key-check", c.hostKeyCheck,
                   "ask (default: a terminal may accept a new key), yes, accept-new or no")
        ->group(g)
        ->type_name("POLICY");
    app.add_flag("--no-ssh-config", c.noSshConfig, "Do not read ~/.ssh/config")->group(g);
    app.add_option("-c,--cipher", c.cipher, "Ciphers to offer, in order, separated by commas")
        ->group(g)
        ->type_name("CIPHER");
    app.add_option("--connect-timeout", c.connectTimeout,
                   "Give up connecting after this many seconds (or 500ms)")
        ->group(g)
        ->type_name("SECONDS");
    app.add_option("--stall-timeout", c.stallTimeout,
                   "Fail when no data moves for this many seconds (0: never)")
        ->group(g)
        ->type_name("SECONDS");
    app.add_option("-J,--jump", c.jump, "Connect through these jump hosts ([user@]host[:port],...)")
        ->group(g)
        ->type_name("HOSTS");
    app.add_option("-F,--ssh-config", c.configFile, "Read this ssh config file, not ~/.ssh/config")
        ->group(g)
        ->type_name("FILE");
    addList(app, "-o,--ssh-option", c.sshOptions,
            "An ssh option as ssh -o takes it (Port, User, IdentityFile, ...)", g, "NAME=VALUE");
    app.add_flag("-C,--compress", c.compress, "Compress the connection")->group(g);
    app.add_flag("-v,--verbose", c.verbose,
                 "Show how connecting and logging in go, and the remote commands")
        ->group(g);
}

void declareTreeOptions(CLI::App& app, Arguments& a) {
    const std::string g = "push and pull";
    app.add_option("--mode", a.mode, "What to copy: a mode name (below) or number; default all")
        ->group(g)
        ->type_name("MODE");
    app.add_flag("--no-recurse", a.noRecurse, "Only the files directly in the directory")->group(g);
    app.add_flag("-n,--dry-run", a.dryRun, "List what would be copied; copy and create nothing")
        ->group(g);
    app.add_option("-j,--jobs", a.jobs, "Copy over up to N channels at once (default 8; 1 to 16)")
        ->group(g)
        ->type_name("N");
    addList(app, "--match", a.match, "Copy only files whose names match (a;b)", g, "PATTERNS");
    addList(app, "--exclude", a.exclude, "Skip files whose names match", g, "PATTERNS");
    addList(app, "--match-dir", a.matchDir, "Enter only directories whose names match", g,
            "PATTERNS");
    addList(app, "--exclude-dir", a.excludeDir, "Skip directories whose names match", g,
            "PATTERNS");
}

void declareTransferOptions(CLI::App& app, Arguments& a) {
    const std::string g = "Transfer";
    addList(app, "--env", a.env, "Set NAME=VALUE in the remote scp's environment", g, "NAME=VALUE");
    app.add_option("--chmod", a.chmod, "Give uploaded files these octal permissions (e.g. 0640)")
        ->group(g)
        ->type_name("OCTAL");
    app.add_flag("--filename-only", a.filenameOnly,
                 "put: name only the file, not its directory, to the remote scp")
        ->group(g);
    app.add_option("-l,--limit", a.limit, "Use at most this bandwidth, in Kbit/s")
        ->group(g)
        ->type_name("KBITS");
}

void declareOutputOptions(CLI::App& app, Arguments& a) {
    const std::string g = "Output";
    app.add_option("--log", a.logFile, "Append the log of every library call to FILE")
        ->group(g)
        ->type_name("FILE");
    app.add_flag("--verbose-log", a.verboseLog, "Write detailed logs")->group(g);
    app.add_option("--debug-log", a.debugLogFile, "Write the library's log to FILE as it happens")
        ->group(g)
        ->type_name("FILE");
    app.add_flag("--progress", a.progress, "Always draw a progress bar")->group(g);
    app.add_flag("--no-progress", a.noProgress, "Never draw a progress bar")->group(g);
    app.add_flag("-q,--quiet", a.quiet, "No progress bar and no list of copied files")->group(g);
}

void declareCommands(CLI::App& app, Arguments& a) {
    struct Sub {
        const char* name;
        const char* help;
        const char* paths;
    };
    const Sub subs[] = {
        {"put", "Upload files (LOCAL_FILE - reads standard input)",
         "LOCAL_FILE... [USER@]HOST:REMOTE_PATH"},
        {"get", "Download files (LOCAL_PATH - writes standard output)",
         "[USER@]HOST:REMOTE_PATH... LOCAL_PATH"},
        {"push", "Bring a remote directory tree up to date from a local one",
         "LOCAL_DIR [USER@]HOST:REMOTE_DIR"},
        {"pull", "Bring a local directory tree up to date from a remote one",
         "[USER@]HOST:REMOTE_DIR LOCAL_DIR"},
    };
    for (const Sub& s : subs) {
        CLI::App* sub = app.add_subcommand(s.name, s.help);
        sub->add_option("paths", a.positionals, s.paths)->required()->type_name("PATH");
        sub->parse_complete_callback([&a, name = s.name] { a.command = name; });
    }
}

ParseResult usageError(const std::string& message) {
    ParseResult r;
    r.kind = ParseResult::Exit;
    r.exitStatus = kExitUsage;
    // The line may quote an argument: it is shown, never obeyed, by a terminal.
    r.err = "scpkit: " + stripControlChars(message) + "\nRun 'scpkit --help' for usage.\n";
    return r;
}

}  // namespace

ParseResult parseCommandLine(const std::vector<std::string>& args, Options& options) {
    CLI::App app{"scpkit copies files and directory trees to and from SSH servers.", "scpkit"};
    app.set_version_flag("--version", "scpkit " SCPKIT_VERSION);
    app.require_subcommand(1);
    app.fallthrough();  // options may also follow the command
    app.footer(helpFooter());

    Arguments raw;
    declareConnectionOptions(app, raw.connection);
    declareTreeOptions(app, raw);
    declareTransferOptions(app, raw);
    declareOutputOptions(app, raw);
    declareCommands(app, raw);

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

    std::string error = checkArguments(raw, options);
    if (!error.empty()) return usageError(error);
    ParseResult ok;
    for (const std::string& warning : patternWarnings(raw)) ok.err += "scpkit: " + warning + "\n";
    return ok;
}

}  // namespace scpkit::cli
