// scpkit: copy files and directory trees to and from SSH servers.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Commands.h"
#include "cli/Interrupt.h"

int main(int argc, char** argv) {
    using namespace scpkit::cli;
    installSignalHandlers();

    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    ParseResult parsed = parseCommandLine(args, options);
    std::fputs(parsed.out.c_str(), stdout);
    std::fputs(parsed.err.c_str(), stderr);
    if (parsed.kind == ParseResult::Exit) return parsed.exitStatus;
    return runCommand(options);
}
