#pragma once

// The dev gateway's command line, read as a pure function of the argument words and the
// environment so that it can be tested without starting anything.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sentrova {

inline constexpr std::string_view kDefaultAuditLogName = "sentrova-audit.jsonl";
inline constexpr std::string_view kDefaultStateName = "sentrova-state.json";
inline constexpr unsigned long long kDefaultScreenshotBudget = 1ull << 30;

struct DevGatewayOptions {
    std::string host = "127.0.0.1"; // always a loopback address
    int port = 8787;                // 0: any free port
    std::optional<std::string> token;     // --token, or SENTROVA_GATEWAY_TOKEN when not empty
    std::optional<std::string> tokenFile; // read by readTokenFile() at start
    std::optional<std::string> policyPath;
    std::optional<std::string> auditLogPath; // a file, or a directory to hold the default name
    std::optional<std::string> statePath;    // default: beside the audit log
    unsigned long long screenshotBudget = kDefaultScreenshotBudget;
    bool help = false;
};

struct DevGatewayOptionsError {
    std::string message;
};

std::variant<DevGatewayOptions, DevGatewayOptionsError> parseDevGatewayOptions(
    const std::vector<std::string>& args, const std::map<std::string, std::string>& env);

// The address to bind for a host word that names the loopback interface ("127.0.0.0/8",
// "localhost", "::1" or "[::1]"); nullopt for any other host.
std::optional<std::string> loopbackAddress(std::string_view host);

// Where the audit log goes: the given file, the default name inside a given directory,
// beside the policy file, or in the working directory.
std::string resolveAuditLogPath(const DevGatewayOptions& options);

// Where the remembered pins go: the given file, else sentrova-state.json beside the audit log.
std::string resolveStatePath(const DevGatewayOptions& options, const std::string& auditLogPath);

// The token in a file, without a trailing line break; the error names the file and says
// what is wrong (unreadable, empty, or holding a control character).
std::variant<std::string, DevGatewayOptionsError> readTokenFile(const std::string& path);

// 32 random bytes from the kernel as 64 lowercase hex digits; nullopt if none could be had.
std::optional<std::string> randomToken();

// "http://127.0.0.1:8787", with brackets around an IPv6 address.
std::string listenURL(const std::string& host, int port);

std::string devGatewayUsage();

} // namespace sentrova
