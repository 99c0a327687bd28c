// The command line: four commands (put, get, push, pull) and the options
// that map to the properties of the SSH object and the SCP component.
#pragma once

#include <string>
#include <vector>

#include "cli/RemoteTarget.h"

namespace scpkit::cli {

enum class Command { Put, Get, Push, Pull };
enum class ProgressChoice { Auto, Always, Never };

struct Options {
    Command command = Command::Put;
    // The local side ("-" for standard input or output with put and get)
    // and the remote side, whatever their order on the command line.
    std::string local;
    std::string remoteText;
    RemoteTarget remote;

    // connection
    int port = 0;  // 0: not given (ssh config, else 22)
    std::string identity;
    std::string passphraseEnv;
    std::string passwordEnv;
    std::string knownHosts;
    std::string hostKeyCheck = "yes";
    bool useSshConfig = true;
    int connectTimeoutMs = -1;  // -1: the library's default
    int stallTimeoutMs = -1;

    // tree synchronisation
    int syncMode = 0;  // already mapped to the direction's number
    bool recurse = true;
    std::string match, exclude, matchDir, excludeDir;  // ';'-separated

    // transfer properties
    std::string sendEnvJson;  // empty: none
    std::string chmod;
    bool filenameOnly = false;

    // output and logs
    std::string logFile;
    bool verboseLog = false;
    std::string debugLogFile;
    ProgressChoice progress = ProgressChoice::Auto;
    bool quiet = false;

    bool readsStdin() const { return command == Command::Put && local == "-"; }
    bool writesStdout() const { return command == Command::Get && local == "-"; }
};

struct ParseResult {
    enum Kind { Run, Exit } kind = Run;
    int exitStatus = 0;  // for Exit: 0 after --help/--version, else a usage error
    std::string out;     // for standard output (help, version)
    std::string err;     // for standard error (usage error)
};

// args excludes the program name.
ParseResult parseCommandLine(const std::vector<std::string>& args, Options& options);

}  // namespace scpkit::cli
