#pragma once

// The command-line parser as a pure function: words and environment in, configuration or message out.

#include <map>
#include <string>
#include <variant>
#include <vector>

#include "MCPBridgeCore/BridgeConfig.hpp"

namespace sentrova {

struct CommandLineError {
    std::string message; // without the "sentrova-mcp-bridge: " prefix and newline
};

// args: the words after the program name. env: a copy of the process environment.
std::variant<BridgeConfig, CommandLineError> parseCommandLine(const std::vector<std::string>& args,
                                                              const std::map<std::string, std::string>& env);

// strtod in the POSIX locale over the whole word; nullopt for an empty word, a leading blank or trailing text.
std::optional<double> parseSeconds(const std::string& word);

} // namespace sentrova
