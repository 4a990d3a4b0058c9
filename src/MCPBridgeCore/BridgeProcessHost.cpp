#include "MCPBridgeCore/BridgeProcessHost.hpp"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "MCPBridgeCore/LinePump.hpp"
#include "MCPBridgeCore/MCPBridgeRouter.hpp"

extern char** environ;

namespace sentrova {

namespace {

constexpr int commandLineErrorStatus = 64;
constexpr int launchFailedStatus = 69;
constexpr const char* envExecutable = "/usr/bin/env";
// After the server has exited, how long its last output may take to reach the client.
constexpr std::chrono::seconds drainLimit{2};
// Larger pipes let big messages cross in fewer wake-ups; the kernel may refuse, which is fine.
constexpr int serverPipeSize = 1024 * 1024;

// Writes every byte, retrying interrupted and partial writes; any other error drops the rest.
void writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written > 0) {
            data += written;
            size -= static_cast<std::size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            // A descriptor inherited in non-blocking mode: wait until it takes bytes again.
            pollfd writable{fd, POLLOUT, 0};
            if (::poll(&writable, 1, -1) >= 0 || errno == EINTR) continue;
        }
        return;
    }
}

void writeAll(int fd, std::string_view bytes) { writeAll(fd, bytes.data(), bytes.size()); }

void closeQuietly(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

int terminationStatus(int waitStatus) {
    if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
    if (WIFSIGNALED(waitStatus)) return WTERMSIG(waitStatus);
    return waitStatus;
}

int waitForChild(pid_t pid) {
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0) {
        if (errno != EINTR) return 0; // not our child any more; nothing better to report
    }
    return terminationStatus(waitStatus);
}

// Our end of a pipe must not land on 0, 1 or 2 (when the bridge was started with one of them
// closed), or the child's redirections onto those numbers would overwrite it.
bool moveAboveStandardStreams(int& fd) {
    if (fd > STDERR_FILENO) return true;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    fd = moved;
    return moved >= 0;
}

struct PipePair {
    int readEnd = -1;
    int writeEnd = -1;

    int open() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
        readEnd = ends[0];
        writeEnd = ends[1];
        if (!moveAboveStandardStreams(readEnd) || !moveAboveStandardStreams(writeEnd)) {
            const int error = errno;
            closeBoth();
            return error;
        }
        return 0;
    }
    void closeBoth() {
        closeQuietly(readEnd);
        closeQuietly(writeEnd);
    }
};

// The three pipes of the child's standard streams.
struct ServerPipes {
    PipePair input;
    PipePair output;
    PipePair error;

    int open() {
        for (PipePair* pipe : {&input, &output, &error}) {
            if (const int error = pipe->open(); error != 0) {
                closeAll();
                return error;
            }
        }
        ::fcntl(input.writeEnd, F_SETPIPE_SZ, serverPipeSize);
        ::fcntl(output.writeEnd, F_SETPIPE_SZ, serverPipeSize);
        return 0;
    }
    void closeChildEnds() {
        closeQuietly(input.readEnd);
        closeQuietly(output.writeEnd);
        closeQuietly(error.writeEnd);
    }
    void closeAll() {
        input.closeBoth();
        output.closeBoth();
        error.closeBoth();
    }
};

// Starts "/usr/bin/env" with the server's words, our environment as it is, and the pipes as
// its standard streams. Returns 0 or the error number of the failed launch.
int spawnServer(const std::vector<std::string>& serverArgv, const ServerPipes& pipes, pid_t& pid) {
    std::vector<char*> argv;
    argv.reserve(serverArgv.size() + 2);
    argv.push_back(const_cast<char*>(envExecutable));
    for (const std::string& word : serverArgv) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    if (const int error = posix_spawn_file_actions_init(&actions); error != 0) return error;
    posix_spawnattr_t attributes;
    if (const int error = posix_spawnattr_init(&attributes); error != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return error;
    }

    // The bridge ignores SIGPIPE; the server gets the default back, and a clean signal mask.
    sigset_t defaultSignals;
    sigemptyset(&defaultSignals);
    sigaddset(&defaultSignals, SIGPIPE);
    sigset_t noBlockedSignals;
    sigemptyset(&noBlockedSignals);

    int error = posix_spawn_file_actions_adddup2(&actions, pipes.input.readEnd, STDIN_FILENO);
    if (error == 0) error = posix_spawn_file_actions_adddup2(&actions, pipes.output.writeEnd, STDOUT_FILENO);
    if (error == 0) error = posix_spawn_file_actions_adddup2(&actions, pipes.error.writeEnd, STDERR_FILENO);
    if (error == 0) error = posix_spawnattr_setsigdefault(&attributes, &defaultSignals);
    if (error == 0) error = posix_spawnattr_setsigmask(&attributes, &noBlockedSignals);
    if (error == 0) error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    if (error == 0) error = posix_spawn(&pid, envExecutable, &actions, &attributes, argv.data(), environ);

    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

bool startDetached(std::function<void()> work) {
    try {
        std::thread(std::move(work)).detach();
        return true;
    } catch (...) {
        return false;
    }
}

// What one run shares with its threads. The threads hold it, so it outlives run() when a pump
// is still blocked in a read (the process then ends with _exit).
struct RunState {
    explicit RunState(HostStreams streams) : streams(streams) {}

    const HostStreams streams;

    std::mutex clientWriteLock;
    std::mutex serverWriteLock;
    int serverInput = -1; // under serverWriteLock; -1 once closed

    std::atomic<bool> errorPassThroughRemoved{false};

    std::mutex progressLock;
    std::condition_variable progressChanged;
    int completions = 0; // the completion semaphore: the child ended, its output ended, or our input ended
    bool childExited = false;
    int childStatus = 0;
    bool serverOutputEnded = false;
    bool errorOutputEnded = false;

    void writeToClient(std::string_view bytes) {
        std::lock_guard lock(clientWriteLock);
        writeAll(streams.clientOutput, bytes);
    }

    void writeToServer(std::string_view bytes) {
        std::lock_guard lock(serverWriteLock);
        if (serverInput >= 0) writeAll(serverInput, bytes);
    }

    // The server reads end of stream; a close error is of no use to anyone.
    void closeServerInput() {
        std::lock_guard lock(serverWriteLock);
        closeQuietly(serverInput);
    }

    void update(const std::function<void(RunState&)>& change, bool completes) {
        {
            std::lock_guard lock(progressLock);
            change(*this);
            if (completes) ++completions;
        }
        progressChanged.notify_all();
    }
};

void copyErrorOutput(RunState& state, int errorReadEnd) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        const ssize_t count = ::read(errorReadEnd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        if (!state.errorPassThroughRemoved.load(std::memory_order_relaxed)) {
            writeAll(state.streams.errorOutput, buffer.data(), static_cast<std::size_t>(count));
        }
    }
    ::close(errorReadEnd);
    state.update([](RunState& s) { s.errorOutputEnded = true; }, false);
}

} // namespace

BridgeProcessHost::BridgeProcessHost(BridgeConfig config, std::shared_ptr<BridgeGatewayClient> gateway,
                                     HostStreams streams)
    : config_(std::move(config)), gateway_(std::move(gateway)), streams_(streams) {}

int BridgeProcessHost::run() {
    if (config_.serverArgv.empty()) {
        writeAll(streams_.errorOutput, "sentrova-mcp-bridge: no server command after --\n");
        return commandLineErrorStatus;
    }

    const std::string& program = config_.serverArgv.front();
    auto launchFailed = [&](int error) {
        writeAll(streams_.errorOutput,
                 "sentrova-mcp-bridge: failed to launch " + program + ": " + std::strerror(error) + "\n");
        return launchFailedStatus;
    };

    ServerPipes pipes;
    if (const int error = pipes.open(); error != 0) return launchFailed(error);

    auto state = std::make_shared<RunState>(streams_);
    state->serverInput = pipes.input.writeEnd;

    MCPBridgeRouter::Config routerConfig;
    routerConfig.workerName = config_.workerName;
    routerConfig.provider = config_.provider;
    routerConfig.serverCommand = config_.serverCommandString();
    routerConfig.heartbeatInterval = config_.heartbeatInterval;
    auto scheduler = std::make_shared<DispatchBridgeScheduler>();
    auto router = std::make_shared<MCPBridgeRouter>(
        std::move(routerConfig), [state](std::string_view bytes) { state->writeToClient(bytes); },
        [state](std::string_view bytes) { state->writeToServer(bytes); }, gateway_, scheduler);

    pid_t pid = -1;
    if (const int error = spawnServer(config_.serverArgv, pipes, pid); error != 0) {
        pipes.closeAll();
        state->serverInput = -1;
        return launchFailed(error);
    }
    pipes.closeChildEnds();

    // The child's end: reaping it is the termination signal of the run.
    const bool waiterStarted = startDetached([state, pid] {
        const int status = waitForChild(pid);
        state->update(
            [status](RunState& s) {
                s.childExited = true;
                s.childStatus = status;
            },
            true);
    });
    if (!waiterStarted) {
        // Without threads nothing can be relayed: let the server see the end of its input.
        state->closeServerInput();
        closeQuietly(pipes.output.readEnd);
        closeQuietly(pipes.error.readEnd);
        return waitForChild(pid);
    }

    const int errorReadEnd = pipes.error.readEnd;
    const bool errorCopyStarted = startDetached([state, errorReadEnd] { copyErrorOutput(*state, errorReadEnd); });

    const int outputReadEnd = pipes.output.readEnd;
    const bool serverPumpStarted = startDetached([state, router, outputReadEnd] {
        pumpLines(outputReadEnd,
                  [&router](std::string line, bool more) { router->handleServerLine(std::move(line), more); });
        ::close(outputReadEnd);
        state->update([](RunState& s) { s.serverOutputEnded = true; }, true);
    });

    const int clientInput = streams_.clientInput;
    const bool clientPumpStarted = startDetached([state, router, clientInput] {
        pumpLines(clientInput,
                  [&router](std::string line, bool more) { router->handleClientLine(std::move(line), more); });
        // Calls still waiting for their verdict are settled first: an allowed one still reaches the server.
        router->finishPendingDecisions();
        state->closeServerInput();
        state->update([](RunState&) {}, true);
    });

    if (!errorCopyStarted || !serverPumpStarted || !clientPumpStarted) {
        // A run that cannot relay both ways ends as if the client had gone.
        state->closeServerInput();
        state->update(
            [&](RunState& s) {
                s.errorOutputEnded = s.errorOutputEnded || !errorCopyStarted;
                s.serverOutputEnded = s.serverOutputEnded || !serverPumpStarted;
            },
            true);
        if (!errorCopyStarted) closeQuietly(pipes.error.readEnd);
        if (!serverPumpStarted) closeQuietly(pipes.output.readEnd);
    }

    std::unique_lock lock(state->progressLock);
    state->progressChanged.wait(lock, [&] { return state->completions > 0; });
    state->progressChanged.wait(lock, [&] { return state->childExited; });
    // Lines and error bytes the server wrote just before it exited still go out; a grandchild
    // that keeps the pipes open cannot hold the run beyond the limit.
    state->progressChanged.wait_for(lock, drainLimit,
                                    [&] { return state->serverOutputEnded && state->errorOutputEnded; });
    state->errorPassThroughRemoved.store(true, std::memory_order_relaxed);
    return state->childStatus;
}

} // namespace sentrova
