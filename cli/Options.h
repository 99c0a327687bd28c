// What one run of the program is asked to do, checked and ready to use: the
// command, its paths, and the settings grouped by the part of the program
// that applies them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/RemoteTarget.h"

namespace scpkit::cli {

enum class Command { Put, Get, Push, Pull };
enum class ProgressChoice { Auto, Always, Never };

// How to reach the server and log in; applied to the SSH object before it
// connects. New connection settings go here and in ConnectionArguments.
struct ConnectionOptions {
    int port = 0;      // 0: not given (ssh config, else 22)
    std::string user;  // -o User: when the argument names none (else ssh config, local user)
    std::string identity;
    std::string passphraseEnv;
    std::string passwordEnv;
    std::string knownHosts;
    std::string hostKeyCheck = "ask";  // ask: as yes, but a terminal may accept a new key
    std::string ciphers;               // empty: the library's choice
    std::string jumpHosts;             // -J: empty for none (or the config's ProxyJump)
    std::string configFile;            // -F: instead of ~/.ssh/config
    std::string compression;           // "yes", "no", or empty: the config's choice
    bool useSshConfig = true;
    bool batchMode = false;     // never ask anything on the terminal
    bool verbose = false;       // -v: say how the connection and the login go
    int connectTimeoutMs = -1;  // -1: the library's default
    int stallTimeoutMs = -1;
};

// The most channels push and pull run at once.
constexpr int kMaxTreeJobs = 16;

// push and pull: what to copy, and over how many channels at once.
struct TreeOptions {
    int syncMode = 0;  // already mapped to the direction's number
    bool recurse = true;
    bool dryRun = false;
    std::string match, exclude, matchDir, excludeDir;  // ';'-separated
    // OpenSSH allows 10 sessions a connection (MaxSessions): stay below.
    int jobs = 8;
};

struct TransferOptions {
    std::string sendEnvJson;  // empty: none
    std::string chmod;
    bool filenameOnly = false;
    int64_t limitBytesPerSecond = 0;  // 0: no limit
};

struct OutputOptions {
    std::string logFile;
    bool verboseLog = false;
    std::string debugLogFile;
    ProgressChoice progress = ProgressChoice::Auto;
    bool quiet = false;
};

struct Options {
    Command command = Command::Put;
    // The local side: put's files ("-" alone reads standard input); for the
    // other commands one path (get's "-" writes standard output).
    std::vector<std::string> local;
    // The remote side: get's files; for the other commands one path. All of
    // them name the same user and host.
    std::vector<RemoteTarget> remote;
    std::vector<std::string> remoteText;  // as typed, for messages

    ConnectionOptions connection;
    TreeOptions tree;
    TransferOptions transfer;
    OutputOptions output;

    const RemoteTarget& server() const { return remote.front(); }
    bool readsStdin() const { return command == Command::Put && local.front() == "-"; }
    bool writesStdout() const { return command == Command::Get && local.front() == "-"; }
    bool isTree() const { return command == Command::Push || command == Command::Pull; }
    bool isUpload() const { return command == Command::Put || command == Command::Push; }
};

}  // namespace scpkit::cli
