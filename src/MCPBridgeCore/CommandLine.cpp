#include "MCPBridgeCore/CommandLine.hpp"

#include <algorithm>
#include <cstdlib>
#include <locale.h>

namespace sentrova {

namespace {

constexpr double defaultDeadlineSeconds = 240.0;
constexpr double defaultHeartbeatSeconds = 15.0;

constexpr const char* gatewayRequiredMessage = "a gateway origin is required (--gateway or SENTROVA_BRIDGE_GATEWAY)";

// strtod must read numbers the same way whatever locale the process runs in.
locale_t posixLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

bool isStrtodBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::optional<std::string> lookup(const std::map<std::string, std::string>& env, const char* name) {
    auto found = env.find(name);
    if (found == env.end()) return std::nullopt;
    return found->second;
}

} // namespace

std::optional<double> parseSeconds(const std::string& word) {
    if (word.empty() || isStrtodBlank(word.front())) return std::nullopt;
    const char* begin = word.c_str();
    char* end = nullptr;
    const locale_t locale = posixLocale();
    // Out of range values come back as an infinity or a tiny value; both are kept.
    const double value = locale != static_cast<locale_t>(nullptr) ? strtod_l(begin, &end, locale)
                                                                  : std::strtod(begin, &end);
    // A word with an embedded NUL stops strtod early and is refused like any trailing text.
    if (end != begin + word.size()) return std::nullopt;
    return value;
}

std::variant<BridgeConfig, CommandLineError> parseCommandLine(const std::vector<std::string>& args,
                                                              const std::map<std::string, std::string>& env) {
    // Everything after the first "--" is the server's, never looked at here.
    const auto separator = std::find(args.begin(), args.end(), std::string("--"));
    const std::vector<std::string> optionWords(args.begin(), separator);
    std::vector<std::string> serverArgv;
    if (separator != args.end()) serverArgv.assign(separator + 1, args.end());

    std::optional<std::string> gatewayString = lookup(env, "SENTROVA_BRIDGE_GATEWAY");
    std::optional<std::string> workerName;
    std::optional<std::string> provider;
    double deadline = defaultDeadlineSeconds;
    double heartbeat = defaultHeartbeatSeconds;

    for (std::size_t i = 0; i < optionWords.size(); ++i) {
        const std::string& word = optionWords[i];
        const bool isOption = word == "--gateway" || word == "--worker-name" || word == "--provider" ||
                              word == "--deadline" || word == "--heartbeat";
        if (!isOption) return CommandLineError{"unknown argument " + word};
        if (i + 1 >= optionWords.size()) return CommandLineError{"missing value for " + word};
        const std::string& value = optionWords[++i];
        if (word == "--gateway") {
            gatewayString = value;
        } else if (word == "--worker-name") {
            workerName = value;
        } else if (word == "--provider") {
            provider = value;
        } else if (auto seconds = parseSeconds(value)) {
            // A number that does not convert leaves the earlier value in place, silently.
            (word == "--deadline" ? deadline : heartbeat) = *seconds;
        }
    }

    std::optional<GatewayEndpoint> gateway;
    if (gatewayString) gateway = GatewayEndpoint::parse(*gatewayString);
    if (!gateway) return CommandLineError{gatewayRequiredMessage};
    if (!workerName) return CommandLineError{"--worker-name is required"};
    if (serverArgv.empty()) return CommandLineError{"a real server command is required after --"};

    BridgeConfig config;
    config.gateway = std::move(*gateway);
    config.gatewayToken = lookup(env, "SENTROVA_GATEWAY_TOKEN");
    config.workerName = std::move(*workerName);
    config.provider = std::move(provider);
    config.serverArgv = std::move(serverArgv);
    config.deadline = deadline;
    config.heartbeatInterval = heartbeat;
    config.caBundle = lookup(env, "CURL_CA_BUNDLE");
    if (!config.caBundle) config.caBundle = lookup(env, "SSL_CERT_FILE");
    return config;
}

} // namespace sentrova
