#pragma once

// Properties of the command-line parser, shared by the fuzz target and the regression replay.
//
// Input layout: byte 0 holds flags (bit 0: SENTROVA_BRIDGE_GATEWAY is set, bit 1:
// SENTROVA_GATEWAY_TOKEN is set); the rest is split at NUL bytes into words. When a variable
// is set, it takes the next word as its value (gateway first, then token); the remaining
// words are the arguments after the program name.
//
// The parser is compared with a plain model of the scan written from the option table; the
// number and URL rules are checked on their own against strtod_l and the model uses them.

#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <locale.h>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "MCPBridgeCore/CommandLine.hpp"

namespace sentrova::fuzzcheck {

struct CommandLineInput {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
};

inline CommandLineInput splitCommandLineInput(std::string_view data) {
    CommandLineInput input;
    if (data.empty()) return input;
    const auto flags = static_cast<unsigned char>(data[0]);
    std::vector<std::string> words;
    const std::string_view payload = data.substr(1);
    if (!payload.empty()) {
        std::size_t start = 0;
        for (std::size_t i = 0; i <= payload.size(); ++i) {
            if (i == payload.size() || payload[i] == '\0') {
                words.emplace_back(payload.substr(start, i - start));
                start = i + 1;
            }
        }
    }
    std::size_t next = 0;
    if ((flags & 1) && next < words.size()) input.env["SENTROVA_BRIDGE_GATEWAY"] = words[next++];
    if ((flags & 2) && next < words.size()) input.env["SENTROVA_GATEWAY_TOKEN"] = words[next++];
    input.env["PATH"] = "/usr/bin:/bin"; // unrelated variables must not matter
    input.args.assign(words.begin() + static_cast<std::ptrdiff_t>(next), words.end());
    return input;
}

// What strtod in the POSIX locale makes of the whole word, by the number rule. `outOfRange` is
// set when strtod reports ERANGE: refusing such a word or taking strtod's value are both fine.
inline std::optional<double> referenceSeconds(const std::string& word, bool& outOfRange) {
    outOfRange = false;
    if (word.empty()) return std::nullopt;
    const char first = word[0];
    if (first == ' ' || first == '\t' || first == '\n' || first == '\v' || first == '\f' || first == '\r') {
        return std::nullopt;
    }
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", locale_t{});
    char* end = nullptr;
    errno = 0;
    const double value = strtod_l(word.c_str(), &end, cLocale);
    if (end == word.c_str() || *end != '\0') return std::nullopt;
    outOfRange = errno == ERANGE;
    return value;
}

inline bool sameSeconds(std::optional<double> a, std::optional<double> b) {
    if (a.has_value() != b.has_value()) return false;
    if (!a) return true;
    if (std::isnan(*a) || std::isnan(*b)) return std::isnan(*a) && std::isnan(*b);
    return *a == *b && std::signbit(*a) == std::signbit(*b);
}

inline std::variant<BridgeConfig, CommandLineError> modelCommandLine(const CommandLineInput& input) {
    std::vector<std::string> argv = input.args;
    std::vector<std::string> serverArgv;
    for (std::size_t k = 0; k < argv.size(); ++k) {
        if (argv[k] == "--") {
            serverArgv.assign(argv.begin() + static_cast<std::ptrdiff_t>(k) + 1, argv.end());
            argv.resize(k);
            break;
        }
    }
    std::optional<std::string> gateway;
    if (auto it = input.env.find("SENTROVA_BRIDGE_GATEWAY"); it != input.env.end()) gateway = it->second;
    std::optional<std::string> workerName, provider;
    double deadline = 240.0, heartbeat = 15.0;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string& word = argv[i];
        const bool isOption = word == "--gateway" || word == "--worker-name" || word == "--provider" ||
                              word == "--deadline" || word == "--heartbeat";
        if (!isOption) return CommandLineError{"unknown argument " + word};
        if (i + 1 >= argv.size()) return CommandLineError{"missing value for " + word};
        const std::string& value = argv[++i];
        // numbers go through parseSeconds, which is checked against strtod_l word by word
        if (word == "--gateway") gateway = value;
        else if (word == "--worker-name") workerName = value;
        else if (word == "--provider") provider = value;
        else if (auto seconds = parseSeconds(value)) (word == "--deadline" ? deadline : heartbeat) = *seconds;
    }
    const CommandLineError noGateway{"a gateway origin is required (--gateway or SENTROVA_BRIDGE_GATEWAY)"};
    if (!gateway || !isURIReference(*gateway)) return noGateway;
    if (!workerName) return CommandLineError{"--worker-name is required"};
    if (serverArgv.empty()) return CommandLineError{"a real server command is required after --"};
    BridgeConfig config;
    config.gatewayURL = *gateway;
    if (auto it = input.env.find("SENTROVA_GATEWAY_TOKEN"); it != input.env.end()) config.gatewayToken = it->second;
    config.workerName = *workerName;
    config.provider = provider;
    config.serverArgv = serverArgv;
    config.deadline = deadline;
    config.heartbeatInterval = heartbeat;
    return config;
}

inline std::string checkCommandLineInput(std::string_view data) {
    const CommandLineInput input = splitCommandLineInput(data);

    for (const auto& word : input.args) {
        bool outOfRange = false;
        const auto want = referenceSeconds(word, outOfRange);
        const auto got = parseSeconds(word);
        if (!sameSeconds(got, want) && !(outOfRange && !got)) return "parseSeconds differs from strtod_l: " + word;
        if (word.empty() && isURIReference(word)) return "the empty string passed the URL check";
    }

    const auto actual = parseCommandLine(input.args, input.env);
    const auto expected = modelCommandLine(input);
    if (actual.index() != expected.index()) {
        return std::holds_alternative<CommandLineError>(actual)
                   ? "refused: " + std::get<CommandLineError>(actual).message
                   : "accepted although the model says: " + std::get<CommandLineError>(expected).message;
    }
    if (const auto* error = std::get_if<CommandLineError>(&actual)) {
        if (*error != std::get<CommandLineError>(expected)) {
            return "message \"" + error->message + "\" instead of \"" + std::get<CommandLineError>(expected).message + "\"";
        }
        return {};
    }
    const auto& got = std::get<BridgeConfig>(actual);
    const auto& want = std::get<BridgeConfig>(expected);
    if (got.gatewayURL != want.gatewayURL) return "gatewayURL differs";
    if (got.gatewayToken != want.gatewayToken) return "gatewayToken differs";
    if (got.workerName != want.workerName) return "workerName differs";
    if (got.provider != want.provider) return "provider differs";
    if (got.serverArgv != want.serverArgv) return "serverArgv differs";
    if (!sameSeconds(got.deadline, want.deadline)) return "deadline differs";
    if (!sameSeconds(got.heartbeatInterval, want.heartbeatInterval)) return "heartbeatInterval differs";
    std::string joined;
    for (std::size_t i = 0; i < got.serverArgv.size(); ++i) joined += (i ? " " : "") + got.serverArgv[i];
    if (got.serverCommandString() != joined) return "serverCommandString differs";
    return {};
}

} // namespace sentrova::fuzzcheck
