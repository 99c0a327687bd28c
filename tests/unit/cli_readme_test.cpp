// The README shows the library example that the build compiles and the mode
// table that the program uses; neither may drift from the code.
#include <gtest/gtest.h>

#include <regex>

#include "cli/SyncModes.h"
#include "tests/support/TreeFiles.h"

namespace scpkit::test {
namespace {

TEST(CliReadme, ShowsTheCompiledExampleAndTheProgramsModeTable) {
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
}

}  // namespace
}  // namespace scpkit::test
