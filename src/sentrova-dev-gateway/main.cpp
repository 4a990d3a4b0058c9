// sentrova-dev-gateway: a local policy gateway for sentrova-mcp-bridge, for demos and tests.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"
#include "sentrova-dev-gateway/DevGatewayOptions.hpp"
#include "sentrova-dev-gateway/DevGatewayPinStore.hpp"
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

// SIGINT and SIGTERM end the gateway, SIGHUP reopens the audit log (after log rotation), all
// through a thread of its own, so that nothing runs inside a signal handler. Every audit line
// is already on disk when the process ends: each is one write.
// The signals are blocked first thing in main, before any thread exists, so that every
// thread inherits the mask and only the waiting thread ever takes them (a SIGHUP delivered to
// another thread would end the process).
sigset_t handledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

void handleSignals(sentrova::DevGatewayServer& server, std::shared_ptr<sentrova::DevGatewayAuditLog> auditLog) {
    const sigset_t signals = handledSignals();
    std::thread([signals, &server, auditLog] {
        for (;;) {
            int received = 0;
            sigwait(&signals, &received);
            if (received == SIGHUP) {
                if (auditLog->reopen()) {
                    std::fprintf(stderr, "sentrova-dev-gateway: reopened the audit log %s\n", auditLog->path().c_str());
                }
                continue;
            }
            server.stop();
            std::this_thread::sleep_for(std::chrono::seconds(2));
            _exit(0);
        }
    }).detach();
}

// The token given on the command line is wiped from the argument words, so that other users'
// "ps" shows it for a moment at most (--token-file avoids even that).
void hideTokenArgument(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string_view word = argv[i];
        char* secret = nullptr;
        if (word == "--token" && i + 1 < argc) {
            secret = argv[i + 1];
        } else if (word.rfind("--token=", 0) == 0) {
            secret = argv[i] + 8;
        }
        for (; secret != nullptr && *secret != '\0'; ++secret) {
            *secret = 'x';
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t signals = handledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const std::vector<std::string> args(argv + 1, argv + argc);
    const auto parsed = sentrova::parseDevGatewayOptions(args, environmentCopy());
    if (const auto* error = std::get_if<sentrova::DevGatewayOptionsError>(&parsed)) {
        return fail(kExitUsage, error->message + " (see --help)");
    }
    hideTokenArgument(argc, argv);
    const sentrova::DevGatewayOptions& options = std::get<sentrova::DevGatewayOptions>(parsed);
    if (options.help) {
        std::fputs(sentrova::devGatewayUsage().c_str(), stdout);
        return 0;
    }
    ::umask(077); // the log, the state and the images are the owner's alone

    // Always a token: a page in the user's browser can reach 127.0.0.1 too.
    std::optional<std::string> token = options.token;
    if (options.tokenFile) {
        auto read = sentrova::readTokenFile(*options.tokenFile);
        if (const auto* error = std::get_if<sentrova::DevGatewayOptionsError>(&read)) {
            return fail(kExitUsage, error->message);
        }
        token = std::get<std::string>(read);
    }
    if (!token) {
        token = sentrova::randomToken();
        if (!token) {
            return fail(kExitUnavailable, "cannot make a random token (no kernel randomness)");
        }
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

    auto opened =
        sentrova::DevGatewayAuditLog::open(sentrova::resolveAuditLogPath(options), options.screenshotBudget);
    if (const auto* error = std::get_if<std::string>(&opened)) {
        return fail(kExitCannotCreate, *error);
    }
    std::shared_ptr<sentrova::DevGatewayAuditLog> auditLog =
        std::move(std::get<std::unique_ptr<sentrova::DevGatewayAuditLog>>(opened));

    auto loadedPins = sentrova::DevGatewayPinStore::load(sentrova::resolveStatePath(options, auditLog->path()));
    if (const auto* error = std::get_if<std::string>(&loadedPins)) {
        return fail(kExitBadPolicy, *error);
    }
    std::shared_ptr<sentrova::DevGatewayPinStore> pinStore =
        std::move(std::get<std::unique_ptr<sentrova::DevGatewayPinStore>>(loadedPins));

    sentrova::DevGatewayServer server(std::move(policy), auditLog, *token, pinStore);
    const std::optional<int> port = server.bind(options.host, options.port);
    if (!port) {
        return fail(kExitUnavailable,
                    "cannot listen on " + sentrova::listenURL(options.host, options.port) + " (address in use?)");
    }
    handleSignals(server, auditLog);

    // The first line is read by scripts and tests that start the gateway on port 0. The
    // token goes in the page address's fragment, which a browser never sends or logs.
    const std::string url = sentrova::listenURL(options.host, *port);
    std::printf("sentrova-dev-gateway listening on %s\n", url.c_str());
    std::printf("sentrova-dev-gateway policy: %s (%zu rules)\n",
                options.policyPath ? options.policyPath->c_str() : "none", ruleCount);
    std::printf("sentrova-dev-gateway audit log: %s\n", auditLog->path().c_str());
    std::printf("sentrova-dev-gateway pin state: %s\n", pinStore->path().c_str());
    std::printf("sentrova-dev-gateway approval page: %s/#token=%s\n", url.c_str(), token->c_str());
    std::printf("sentrova-dev-gateway for the bridge: export SENTROVA_BRIDGE_GATEWAY=%s SENTROVA_GATEWAY_TOKEN=%s\n",
                url.c_str(), token->c_str());
    std::fflush(stdout);

    server.run();
    std::fflush(stdout);
    _exit(0);
}
