// The README shows the library example that the build compiles and the mode
// table that the program uses; it, the manual page and the bash completion
// name every option the program takes. None may drift from the code.
#include <gtest/gtest.h>

#include <regex>

#include "cli/CommandLine.h"
#include "cli/SyncModes.h"
#include "tests/support/TestKit.h"

namespace scpkit::test {
namespace {

TEST(CliReadme, ExampleModesAndOptionsAreThoseOfTheCode) {
    std::string readme = readFile(SCPKIT_SOURCE_DIR "/README.md");
    std::string example = readFile(SCPKIT_SOURCE_DIR "/examples/quickstart.cpp");
    ASSERT_FALSE(example.empty());
    EXPECT_NE(readme.find("```cpp\n" + example + "```"), std::string::npos)
        << "paste examples/quickstart.cpp into the README again";
    for (const cli::SyncModeName& m : cli::syncModeNames()) {
        std::string row = "\\| `" + std::string(m.name) + "` \\| [^|\n]+ \\| " +
                          std::to_string(m.downloadMode) + " \\| " + std::to_string(m.uploadMode);
        EXPECT_TRUE(std::regex_search(readme, std::regex(row + " \\|\n"))) << row;
    }

    cli::Options ignored;
    std::string help = cli::parseCommandLine({"--help"}, ignored).out;
    const std::pair<std::string, std::string> docs[] = {
        {"README", readme},
        {"manual", readFile(SCPKIT_SOURCE_DIR "/doc/scpkit.1")},
        {"completion", readFile(SCPKIT_SOURCE_DIR "/doc/scpkit.bash-completion")}};
    std::regex option("(^|[ ,])(--?[a-zA-Z][a-z-]*)");
    int found = 0;
    for (std::sregex_iterator it(help.begin(), help.end(), option), end; it != end; ++it, ++found) {
        for (const auto& [doc, text] : docs) {
            // The manual writes a dash as \-.
            std::string dash = doc == "manual" ? "\\\\-" : "-";
            std::string word = std::regex_replace((*it)[2].str(), std::regex("-"), dash);
            EXPECT_TRUE(
                std::regex_search(text, std::regex("(^|[^a-z-])" + word + "(?![a-z]|-[a-z])")))
                << (*it)[2] << " in the " << doc;
        }
    }
    EXPECT_GE(found, 38);  // the whole list was read
}

}  // namespace
}  // namespace scpkit::test
