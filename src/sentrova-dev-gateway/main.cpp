// sentrova-dev-gateway: a local policy gateway for sentrova-mcp-bridge, for demos and tests.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"
#include "sentrova-dev-gateway/DevGatewayOptions.hpp"
#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"
#include "sentrova-dev-gateway/DevGatewayServer.hpp"

extern char** environ;

namespace {

constexpr int kExitBadPolicy = 2;
constexpr int kExitUsage = 64;
constexpr int kExitUnavailable = 69;
constexpr int kExitCannotCreate = 73;

int fail(int status, const std::string& message) {
    std::fprintf(stderr, "sentrova-dev-gateway: %s\n", message.c_str());
    return status;
}

std::map<std::string, std::string> environmentCopy() {
    std::map<std::string, std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const std::size_t equals = text.find('=');
        if (equals != std::string::npos) {
            env.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
    }
    return env;
}

// SIGINT and SIGTERM end the gateway through a thread of its own, so that stopping the
// server never runs inside a signal handler. Idle keep-alive connections can hold up the
// server's own shutdown, so the process ends shortly afterwards in any case (every audit
// line is already on disk: each is one write).
void stopOnSignals(sentrova::DevGatewayServer& server) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals, &server] {
        int received = 0;
        sigwait(&signals, &received);
        server.stop();
        std::this_thread::sleep_for(std::chrono::seconds(2));
        _exit(0);
    }).detach();
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> args(argv + 1, argv + argc);
    const auto parsed = sentrova::parseDevGatewayOptions(args, environmentCopy());
    if (const auto* error = std::get_if<sentrova::DevGatewayOptionsError>(&parsed)) {
        return fail(kExitUsage, error->message + " (see --help)");
    }
    const sentrova::DevGatewayOptions& options = std::get<sentrova::DevGatewayOptions>(parsed);
    if (options.help) {
        std::fputs(sentrova::devGatewayUsage().c_str(), stdout);
        return 0;
    }

    sentrova::DevGatewayPolicy policy;
    if (options.policyPath) {
        auto loaded = sentrova::DevGatewayPolicy::load(*options.policyPath);
        if (const auto* error = std::get_if<std::string>(&loaded)) {
            return fail(kExitBadPolicy, *error);
        }
        policy = std::move(std::get<sentrova::DevGatewayPolicy>(loaded));
    } else {
        std::fputs("sentrova-dev-gateway: no --policy given, so every call is denied\n", stderr);
    }
    const std::size_t ruleCount = policy.rules().size();

    auto opened = sentrova::DevGatewayAuditLog::open(sentrova::resolveAuditLogPath(options));
    if (const auto* error = std::get_if<std::string>(&opened)) {
        return fail(kExitCannotCreate, *error);
    }
    std::shared_ptr<sentrova::DevGatewayAuditLog> auditLog =
        std::move(std::get<std::unique_ptr<sentrova::DevGatewayAuditLog>>(opened));

    sentrova::DevGatewayServer server(std::move(policy), auditLog, options.token);
    const std::optional<int> port = server.bind(options.host, options.port);
    if (!port) {
        return fail(kExitUnavailable,
                    "cannot listen on " + sentrova::listenURL(options.host, options.port) + " (address in use?)");
    }
    stopOnSignals(server);

    // The first line is read by scripts and tests that start the gateway on port 0.
    std::printf("sentrova-dev-gateway listening on %s\n", sentrova::listenURL(options.host, *port).c_str());
    std::printf("sentrova-dev-gateway policy: %s (%zu rules)\n",
                options.policyPath ? options.policyPath->c_str() : "none", ruleCount);
    std::printf("sentrova-dev-gateway audit log: %s\n", auditLog->path().c_str());
    std::printf("sentrova-dev-gateway bearer token: %s\n", options.token ? "required" : "not required");
    std::fflush(stdout);

    server.run();
    std::fflush(stdout);
    _exit(0);
}
