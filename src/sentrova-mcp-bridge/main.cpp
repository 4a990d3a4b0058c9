// Entry point: parse the command line, build the gateway client and the host, run, exit.

#include <cerrno>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "MCPBridgeCore/BridgeProcessHost.hpp"
#include "MCPBridgeCore/CommandLine.hpp"
#include "MCPBridgeCore/HTTPBridgeGatewayClient.hpp"

extern char** environ;

namespace {

constexpr int commandLineErrorStatus = 64;

std::map<std::string, std::string> copyEnvironment() {
    std::map<std::string, std::string> env;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const auto equals = text.find('=');
        if (equals == std::string::npos) continue;
        // The first definition of a name is the one getenv and the child's programs see.
        env.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    return env;
}

// A standard stream we were started without is opened on /dev/null, so that no later pipe,
// socket or file takes its number and receives bytes meant for the client or the terminal.
void occupyClosedStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) ::open("/dev/null", O_RDWR);
    }
}

[[noreturn]] void fail(const std::string& message) {
    const std::string line = "sentrova-mcp-bridge: " + message + "\n";
    const ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
    (void)ignored;
    ::_exit(commandLineErrorStatus);
}

} // namespace

int main(int argc, char** argv) {
    // Before any thread exists, so that every thread has them blocked and one takes them.
    sentrova::BridgeProcessHost::blockForwardedSignals();
    occupyClosedStandardStreams();
    const std::map<std::string, std::string> env = copyEnvironment();
    const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);

    auto parsed = sentrova::parseCommandLine(args, env);
    if (auto* error = std::get_if<sentrova::CommandLineError>(&parsed)) fail(error->message);
    const auto& config = std::get<sentrova::BridgeConfig>(parsed);

    // A client or server that goes away must show up as a failed write, not end the bridge.
    std::signal(SIGPIPE, SIG_IGN);
    // An ignored SIGCHLD inherited from our parent would reap the server before we learn its status.
    std::signal(SIGCHLD, SIG_DFL);

    auto gateway = std::make_shared<sentrova::HTTPBridgeGatewayClient>(config.gateway, config.gatewayToken,
                                                                        config.deadline, config.caBundle);
    sentrova::BridgeProcessHost host(config, gateway);
    const int status = host.run();
    // Pumps may still be blocked in read; ending here skips every destructor that could race them.
    ::_exit(status);
}
