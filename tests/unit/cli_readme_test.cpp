// The README shows the library example that the build compiles and the mode
// table that the program uses; neither may drift from the code.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "cli/SyncModes.h"

namespace scpkit::test {
namespace {

std::string readSourceFile(const std::string& relative) {
    std::ifstream in(std::string(SCPKIT_SOURCE_DIR) + "/" + relative, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(CliReadme, ShowsTheCompiledExampleVerbatim) {
    std::string readme = readSourceFile("README.md");
    std::string example = readSourceFile("examples/quickstart.cpp");
    ASSERT_FALSE(readme.empty());
    ASSERT_FALSE(example.empty());
    EXPECT_NE(readme.find("```cpp\n" + example + "```"), std::string::npos)
        << "paste examples/quickstart.cpp into the README again";
}

TEST(CliReadme, ModeTableMatchesTheProgram) {
    std::string readme = readSourceFile("README.md");
    for (const cli::SyncModeName& m : cli::syncModeNames()) {
        SCOPED_TRACE(m.name);
        size_t row = readme.find(std::string("| `") + m.name + "` |");
        ASSERT_NE(row, std::string::npos);
        std::string line = readme.substr(row, readme.find('\n', row) - row);
        std::string numbers =
            " " + std::to_string(m.downloadMode) + " | " + std::to_string(m.uploadMode) + " |";
        EXPECT_EQ(line.substr(line.size() - numbers.size()), numbers) << line;
    }
}

}  // namespace
}  // namespace scpkit::test
