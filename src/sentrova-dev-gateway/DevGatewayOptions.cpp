#include "sentrova-dev-gateway/DevGatewayOptions.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/random.h>

namespace sentrova {

namespace {

std::optional<int> parsePort(std::string_view word) {
    if (word.empty() || word.size() > 5) {
        return std::nullopt;
    }
    int port = 0;
    for (char c : word) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        port = port * 10 + (c - '0');
    }
    return port <= 65535 ? std::optional<int>(port) : std::nullopt;
}

// Splits "host:port" or "[v6]:port" at the last colon.
std::optional<std::pair<std::string, std::string>> splitHostPort(std::string_view word) {
    const std::size_t colon = word.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    return std::make_pair(std::string(word.substr(0, colon)), std::string(word.substr(colon + 1)));
}

// A token travels in a header line: printable ASCII without blanks, and not empty.
std::optional<std::string> tokenProblem(std::string_view token) {
    if (token.empty()) {
        return "is empty";
    }
    for (char c : token) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7F) {
            return "may hold only printable ASCII characters without blanks";
        }
    }
    return std::nullopt;
}

// "1073741824", "512M", "2G", "100K" (powers of 1024).
std::optional<unsigned long long> parseByteCount(std::string_view word) {
    unsigned long long scale = 1;
    if (!word.empty()) {
        switch (word.back()) {
        case 'K': scale = 1ull << 10; break;
        case 'M': scale = 1ull << 20; break;
        case 'G': scale = 1ull << 30; break;
        default: break;
        }
        if (scale != 1) word.remove_suffix(1);
    }
    if (word.empty() || word.size() > 12) {
        return std::nullopt;
    }
    unsigned long long value = 0;
    for (char c : word) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + static_cast<unsigned long long>(c - '0');
    }
    return value * scale;
}

} // namespace

std::optional<std::string> loopbackAddress(std::string_view host) {
    if (host == "localhost") {
        return "127.0.0.1";
    }
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string text(host);
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127 ? std::optional<std::string>(text) : std::nullopt;
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6)) {
        return text;
    }
    return std::nullopt;
}

std::variant<DevGatewayOptions, DevGatewayOptionsError> parseDevGatewayOptions(
    const std::vector<std::string>& args, const std::map<std::string, std::string>& env) {
    DevGatewayOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string word = args[i];
        if (word == "--help" || word == "-h") {
            options.help = true;
            continue;
        }
        // Both "--option value" and "--option=value".
        std::optional<std::string> value;
        if (const std::size_t equals = word.find('='); word.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = word.substr(equals + 1);
            word.resize(equals);
        }
        const bool known = word == "--listen" || word == "--port" || word == "--token" || word == "--policy" ||
                           word == "--audit-log" || word == "--token-file" || word == "--state" ||
                           word == "--screenshot-budget";
        if (!known) {
            return DevGatewayOptionsError{"unknown argument " + args[i]};
        }
        if (!value) {
            if (i + 1 >= args.size()) {
                return DevGatewayOptionsError{"missing value for " + word};
            }
            value = args[++i];
        }
        if (word == "--listen") {
            const auto parts = splitHostPort(*value);
            const std::optional<int> port = parts ? parsePort(parts->second) : std::nullopt;
            if (!port) {
                return DevGatewayOptionsError{"--listen takes HOST:PORT, not " + *value};
            }
            const std::optional<std::string> address = loopbackAddress(parts->first);
            if (!address) {
                return DevGatewayOptionsError{"refusing to listen on " + parts->first +
                                              ": only loopback addresses (127.0.0.0/8, localhost, [::1]) are allowed"};
            }
            options.host = *address;
            options.port = *port;
        } else if (word == "--port") {
            const std::optional<int> port = parsePort(*value);
            if (!port) {
                return DevGatewayOptionsError{"--port takes a number from 0 to 65535, not " + *value};
            }
            options.port = *port;
        } else if (word == "--token") {
            if (auto problem = tokenProblem(*value)) {
                return DevGatewayOptionsError{"--token " + *problem};
            }
            options.token = *value;
        } else if (word == "--token-file") {
            options.tokenFile = *value;
        } else if (word == "--state") {
            options.statePath = *value;
        } else if (word == "--screenshot-budget") {
            const std::optional<unsigned long long> budget = parseByteCount(*value);
            if (!budget) {
                return DevGatewayOptionsError{"--screenshot-budget takes a byte count (such as 1073741824 or 512M), not " +
                                              *value};
            }
            options.screenshotBudget = *budget;
        } else if (word == "--policy") {
            options.policyPath = *value;
        } else {
            options.auditLogPath = *value;
        }
    }
    if (options.token && options.tokenFile) {
        return DevGatewayOptionsError{"--token and --token-file exclude each other"};
    }
    if (auto token = env.find("SENTROVA_GATEWAY_TOKEN");
        !options.token && !options.tokenFile && token != env.end() && !token->second.empty()) {
        if (auto problem = tokenProblem(token->second)) {
            return DevGatewayOptionsError{"SENTROVA_GATEWAY_TOKEN " + *problem};
        }
        options.token = token->second;
    }
    return options;
}

std::variant<std::string, DevGatewayOptionsError> readTokenFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        return DevGatewayOptionsError{"token file " + path + ": cannot be read"};
    }
    std::string token = text.str();
    while (!token.empty() && (token.back() == '\n' || token.back() == '\r')) {
        token.pop_back();
    }
    if (auto problem = tokenProblem(token)) {
        return DevGatewayOptionsError{"token file " + path + ": the token " + *problem};
    }
    return token;
}

std::optional<std::string> randomToken() {
    std::array<unsigned char, 32> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got < 0 && errno != EINTR) {
            return std::nullopt;
        }
        filled += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char byte : bytes) {
        token.push_back(kHex[byte >> 4]);
        token.push_back(kHex[byte & 0x0F]);
    }
    return token;
}

std::string resolveStatePath(const DevGatewayOptions& options, const std::string& auditLogPath) {
    if (options.statePath) {
        return *options.statePath;
    }
    return (std::filesystem::path(auditLogPath).parent_path() / std::string(kDefaultStateName)).string();
}

std::string resolveAuditLogPath(const DevGatewayOptions& options) {
    namespace fs = std::filesystem;
    const fs::path name{std::string(kDefaultAuditLogName)};
    if (options.auditLogPath) {
        const fs::path given(*options.auditLogPath);
        std::error_code error;
        if (fs::is_directory(given, error) || options.auditLogPath->ends_with('/')) {
            return (given / name).string();
        }
        return given.string();
    }
    if (options.policyPath) {
        return (fs::path(*options.policyPath).parent_path() / name).string();
    }
    return name.string();
}

std::string listenURL(const std::string& host, int port) {
    const bool v6 = host.find(':') != std::string::npos;
    return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string devGatewayUsage() {
    return "usage: sentrova-dev-gateway [--listen HOST:PORT] [--port PORT] [--policy FILE]\n"
           "                            [--audit-log FILE|DIR] [--state FILE]\n"
           "                            [--token-file FILE | --token TOKEN] [--screenshot-budget BYTES]\n"
           "\n"
           "A local policy gateway for sentrova-mcp-bridge: answers POST /v1/toolcall from the\n"
           "rules of a JSON policy file (\"ask\" rules wait for a person on the approval page that\n"
           "the gateway serves at its own address), and records every question and event\n"
           "(POST /v1/event) in a JSON Lines audit log; screenshots are saved beside the log.\n"
           "\n"
           "  --listen HOST:PORT  loopback address to serve on (default 127.0.0.1:8787; port 0\n"
           "                      picks a free port, printed on the first line of output)\n"
           "  --port PORT         port only, on 127.0.0.1\n"
           "  --policy FILE       JSON policy; without one every call is denied\n"
           "  --audit-log PATH    log file, or a directory for sentrova-audit.jsonl (default:\n"
           "                      beside the policy file, else the working directory)\n"
           "  --state FILE        pins of allowed calls, kept across runs (default:\n"
           "                      sentrova-state.json beside the audit log)\n"
           "  --token-file FILE   the bearer token every request must carry, read from FILE\n"
           "  --token TOKEN       the same on the command line (visible to other users in ps:\n"
           "                      prefer --token-file or SENTROVA_GATEWAY_TOKEN). Without any of\n"
           "                      them a random token is made and printed at start.\n"
           "  --screenshot-budget BYTES  total size of saved screenshots (default 1G; K, M, G\n"
           "                      suffixes); beyond it events are logged without a file\n"
           "\n"
           "Exit status: 0 after SIGINT or SIGTERM, 64 for a command-line error, 2 for a bad\n"
           "policy or state file, 73 when the audit log cannot be opened, 69 when the address is in use.\n";
}

} // namespace sentrova
