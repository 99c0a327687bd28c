// A log that keeps every line as flat text, for tests that check what a
// support service reported without depending on the tree renderer.
#pragma once

#include <string>
#include <vector>

#include "base/LogBase.h"

namespace scpkit::test {

class RecordingLog : public LogBase {
  public:
    void enterContext(const char* name, bool) override { lines.push_back(std::string(name) + ":"); }
    void leaveContext() override { lines.push_back("--"); }
    void LogError(const char* text) override { lines.push_back(std::string("error: ") + text); }
    void LogInfo(const char* text) override { lines.push_back(std::string("info: ") + text); }
    void LogData(const char* tag, const char* value) override {
        lines.push_back(std::string(tag) + ": " + value);
    }

    bool contains(const std::string& text) const {
        for (const std::string& line : lines) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }
    bool hasError() const { return contains("error: "); }
    std::string all() const {
        std::string out;
        for (const std::string& line : lines) out += line + "\n";
        return out;
    }

    std::vector<std::string> lines;
};

}  // namespace scpkit::test
