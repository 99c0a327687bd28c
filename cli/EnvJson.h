// --env NAME=VALUE arguments to the JSON object the SendEnv property takes.
#pragma once

#include <string>
#include <vector>

namespace scpkit::cli {

// False (with `error` set) for a pair without '=' or with a name that is not
// a valid environment variable name. A later pair with the same name wins.
bool envPairsToJson(const std::vector<std::string>& pairs, std::string& json, std::string& error);

// `text` as a JSON string literal, quotes included.
std::string jsonQuote(const std::string& text);

}  // namespace scpkit::cli
