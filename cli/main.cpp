// scpkit: copy files and directory trees to and from SSH servers.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/Commands.h"
#include "cli/ExitStatus.h"
#include "cli/Interrupt.h"
#include "cli/Options.h"

int main(int argc, char** argv) {
    using namespace scpkit::cli;
    installInterruptHandler();

    std::vector<std::string> args(argv + 1, argv + argc);
    Options options;
    ParseResult parsed = parseCommandLine(args, options);
    if (parsed.kind == ParseResult::Exit) {
        std::fputs(parsed.out.c_str(), stdout);
        std::fputs(parsed.err.c_str(), stderr);
        return parsed.exitStatus;
    }
    return runCommand(options);
}
