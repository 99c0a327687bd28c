// The command line as typed, before any check: what the option parser
// fills in. checkArguments turns it into Options or says what is wrong, so
// every rule about values and combinations lives apart from the parser.
#pragma once

#include <string>
#include <vector>

#include "cli/Options.h"

namespace scpkit::cli {

// Connection settings as typed. New connection options go here, in their
// declaration (declareConnectionOptions) and in ConnectionOptions.
struct ConnectionArguments {
    std::string port, connectTimeout, stallTimeout;  // numbers as typed; empty: not given
    std::string identity, passphraseEnv, passwordEnv;
    std::string knownHosts, hostKeyCheck, cipher;
    std::string jump, configFile;
    std::vector<std::string> sshOptions;  // -o Name=value, as typed
    std::string user, compression;        // from -o only
    bool noSshConfig = false;
    bool compress = false;
    bool batchMode = false;  // from -o only
    bool verbose = false;
};

struct Arguments {
    std::string command;  // put, get, push or pull
    std::vector<std::string> positionals;

    ConnectionArguments connection;

    std::string mode;
    bool noRecurse = false;
    bool dryRun = false;
    std::string jobs;  // as typed
    std::vector<std::string> match, exclude, matchDir, excludeDir;

    std::vector<std::string> env;
    std::string chmod;
    bool filenameOnly = false;
    std::string limit;  // Kbit/s as typed

    std::string logFile;
    bool verboseLog = false;
    std::string debugLogFile;
    bool progress = false, noProgress = false, quiet = false;
};

// Empty on success (`options` filled); else the usage error to print.
std::string checkArguments(const Arguments& args, Options& options);

// Patterns that contain a '/' never match: they are tested against bare
// names. One warning line per such pattern, empty when there is none.
std::vector<std::string> patternWarnings(const Arguments& args);

}  // namespace scpkit::cli
