#include "MCPBridgeCore/BridgeProcessHost.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
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
// After the server has exited, its output is relayed until it ends, or until it has given no byte
// for this long while we waited for one (a descendant of the server may hold the pipe open).
constexpr std::chrono::seconds drainSilence{2};
// After the end of the client's input: the server's grace before SIGTERM, and again before SIGKILL.
constexpr std::chrono::seconds stopGrace{5};
// The status of a child that could not execute the server (only its parent ever sees it).
constexpr int childLaunchFailed = 127;
// Larger pipes let big messages cross in fewer wake-ups; the kernel may refuse, which is fine.
constexpr int serverPipeSize = 1024 * 1024;

// Writes every byte, retrying interrupted and partial writes; any other error drops the rest
// and gives false.
bool writeAll(int fd, const char* data, std::size_t size) {
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
        return false;
    }
    return true;
}

bool writeAll(int fd, std::string_view bytes) { return writeAll(fd, bytes.data(), bytes.size()); }

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

sigset_t forwardedSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

// Everything the child needs, prepared before the fork: after it only async-signal-safe calls
// are allowed (other threads may hold the allocator's locks).
struct ServerLaunch {
    std::vector<char*> argv;
    int input = -1;
    int output = -1;
    int error = -1;
    int report = -1; // the child writes its errno here when it cannot execute the server
    pid_t parent = -1;
    sigset_t noSignals;
};

[[noreturn]] void childFailed(int report) noexcept {
    const int error = errno;
    [[maybe_unused]] const ssize_t ignored = ::write(report, &error, sizeof error);
    ::_exit(childLaunchFailed);
}

// In the forked child: the pipes become the standard streams, nothing else is inherited, the
// bridge's death sends SIGTERM, and the signal state is the default one before the server runs.
[[noreturn]] void becomeServer(const ServerLaunch& launch) noexcept {
    if (::dup2(launch.input, STDIN_FILENO) < 0 || ::dup2(launch.output, STDOUT_FILENO) < 0 ||
        ::dup2(launch.error, STDERR_FILENO) < 0) {
        childFailed(launch.report);
    }
    // The report pipe moves to 3 (closed by the exec itself); every other descriptor goes now.
    int report = launch.report;
    if (report != 3) {
        if (::dup2(report, 3) < 0 || ::fcntl(3, F_SETFD, FD_CLOEXEC) < 0) childFailed(report);
        report = 3;
    }
    ::closefrom(4);
    struct sigaction defaultAction = {};
    defaultAction.sa_handler = SIG_DFL;
    ::sigaction(SIGPIPE, &defaultAction, nullptr); // the bridge ignores it, the server must not
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) childFailed(report);
    // A bridge that died before prctl sends nothing: then the server is not started at all.
    if (::getppid() != launch.parent) ::_exit(childLaunchFailed);
    ::sigprocmask(SIG_SETMASK, &launch.noSignals, nullptr);
    ::execve(envExecutable, launch.argv.data(), environ);
    childFailed(report);
}

// Starts "/usr/bin/env" with the server's words, our environment as it is, and the pipes as
// its standard streams. Returns 0 or the error number of the failed launch. Must run on the
// thread that lives as long as the run: the parent-death signal follows the forking thread.
int launchServer(const std::vector<std::string>& serverArgv, const ServerPipes& pipes, pid_t& pid) {
    PipePair report;
    if (const int error = report.open(); error != 0) return error;

    ServerLaunch launch;
    launch.argv.reserve(serverArgv.size() + 2);
    launch.argv.push_back(const_cast<char*>(envExecutable));
    for (const std::string& word : serverArgv) launch.argv.push_back(const_cast<char*>(word.c_str()));
    launch.argv.push_back(nullptr);
    launch.input = pipes.input.readEnd;
    launch.output = pipes.output.writeEnd;
    launch.error = pipes.error.writeEnd;
    launch.report = report.writeEnd;
    launch.parent = ::getpid();
    sigemptyset(&launch.noSignals);

    pid = ::fork();
    if (pid == 0) becomeServer(launch);
    const int forkError = errno;
    closeQuietly(report.writeEnd);
    if (pid < 0) {
        report.closeBoth();
        return forkError;
    }
    // The report pipe closes at the exec: no bytes means the server's program is running.
    int childError = 0;
    ssize_t count;
    do {
        count = ::read(report.readEnd, &childError, sizeof childError);
    } while (count < 0 && errno == EINTR);
    report.closeBoth();
    if (count != static_cast<ssize_t>(sizeof childError)) return 0;
    int ignored = 0;
    while (::waitpid(pid, &ignored, 0) < 0 && errno == EINTR) {
    }
    return childError != 0 ? childError : EIO;
}

// What one run shares with its threads. The threads hold it, so it outlives run() when a pump
// is still blocked in a read (the process then ends with _exit).
struct RunState {
    using Clock = std::chrono::steady_clock;

    explicit RunState(HostStreams streams) : streams(streams) {}

    const HostStreams streams;

    std::mutex clientWriteLock;
    bool runOver = false; // under clientWriteLock: nothing more is written to the client
    std::atomic<bool> clientGone{false}; // a write to the client failed: it has closed its end
    std::mutex serverWriteLock;
    int serverInput = -1; // under serverWriteLock; -1 once closed

    std::atomic<bool> errorPassThroughRemoved{false};

    // The child may be signalled until it is reaped, never after: its pid could be someone else's.
    std::mutex childLock;
    pid_t childPid = -1;
    bool childReaped = false;

    std::mutex progressLock;
    std::condition_variable progressChanged;
    bool childExited = false;
    Clock::time_point childExitedAt;
    int childStatus = 0;
    bool stopAsked = false; // a signal came after the server had exited: stop relaying
    bool serverOutputEnded = false;
    bool errorOutputEnded = false;
    // Since when the server-output pump has been waiting for bytes; empty while it is busy
    // handing them on (a slow client must not count as a silent server).
    std::optional<Clock::time_point> serverOutputWaitingSince;
    // When the error copy last read bytes. Its writes count as silence: error output that nobody
    // reads must not hold the bridge after the server's exit.
    Clock::time_point errorOutputReadAt{};

    void writeToClient(std::string_view bytes) {
        bool failed = false;
        {
            std::lock_guard lock(clientWriteLock);
            if (runOver || clientGone.load(std::memory_order_relaxed)) return;
            failed = !writeAll(streams.clientOutput, bytes);
            if (failed) clientGone.store(true, std::memory_order_relaxed);
        }
        if (failed) update([](RunState&) {}); // a drain waiting for the client can stop
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

    // False when there is no child to signal any more.
    bool signalChild(int number) {
        std::lock_guard lock(childLock);
        if (childPid <= 0 || childReaped) return false;
        ::kill(childPid, number);
        return true;
    }

    // Changes the run's progress under its lock and wakes whoever waits for it.
    template <typename Change>
    void update(Change change) {
        {
            std::lock_guard lock(progressLock);
            change(*this);
        }
        progressChanged.notify_all();
    }

    // Reaps the child once it has ended; the pid stays signallable up to that moment.
    void awaitChild(pid_t pid) {
        siginfo_t info{};
        while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
        }
        {
            std::lock_guard lock(childLock);
            childReaped = true;
        }
        const int status = waitForChild(pid);
        update([status](RunState& s) {
            s.childExited = true;
            s.childExitedAt = Clock::now();
            s.childStatus = status;
        });
    }

    // After the end of the client's input the server should exit on its own; if it does not,
    // SIGTERM and then SIGKILL, as MCP clients stop a stdio server.
    void stopServerUnlessItExits() {
        for (const int number : {SIGTERM, SIGKILL}) {
            {
                std::unique_lock lock(progressLock);
                if (progressChanged.wait_for(lock, stopGrace, [this] { return childExited; })) return;
            }
            signalChild(number);
        }
    }

    // Waits until the server's output has reached the client whole: its end, a client that has
    // gone, or a silence of drainSilence while waiting for bytes (counted from the server's exit
    // at the earliest, so that its last bytes are never taken for silence); and until its error
    // output has ended or been silent as long.
    void drainServerOutput(std::unique_lock<std::mutex>& lock) {
        for (;;) {
            const auto now = Clock::now();
            auto silentUntil = [&](const std::optional<Clock::time_point>& since) {
                return since ? std::max(*since, childExitedAt) + drainSilence : Clock::time_point::max();
            };
            const bool outputDone = serverOutputEnded || clientGone.load(std::memory_order_relaxed) || stopAsked ||
                                    silentUntil(serverOutputWaitingSince) <= now;
            const bool errorsDone = errorOutputEnded || stopAsked || silentUntil(errorOutputReadAt) <= now;
            if (outputDone && errorsDone) return;
            // A pump busy writing is woken up for when it waits again (update notifies).
            const auto wake = std::min(outputDone ? Clock::time_point::max() : silentUntil(serverOutputWaitingSince),
                                       errorsDone ? Clock::time_point::max() : silentUntil(errorOutputReadAt));
            if (wake == Clock::time_point::max()) {
                progressChanged.wait(lock);
            } else {
                progressChanged.wait_until(lock, wake);
            }
        }
    }
};

void copyErrorOutput(RunState& state, int errorReadEnd) {
    std::vector<char> buffer(64 * 1024);
    for (;;) {
        const ssize_t count = ::read(errorReadEnd, buffer.data(), buffer.size());
        state.update([](RunState& s) { s.errorOutputReadAt = RunState::Clock::now(); });
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        if (!state.errorPassThroughRemoved.load(std::memory_order_relaxed)) {
            writeAll(state.streams.errorOutput, buffer.data(), static_cast<std::size_t>(count));
        }
    }
    ::close(errorReadEnd);
    state.update([](RunState& s) { s.errorOutputEnded = true; });
}

// The threads of one run (see the map in the header); each holds the state it needs.
void startThreads(const std::shared_ptr<RunState>& state, const std::shared_ptr<MCPBridgeRouter>& router,
                  pid_t pid, int outputReadEnd, int errorReadEnd, int clientInput) {
    // The child's end: reaping it is the termination signal of the run.
    std::thread([state, pid] { state->awaitChild(pid); }).detach();

    // Signals to the bridge are the server's: it decides when the run ends. Once it has exited,
    // a signal ends the relay of its last output instead (at a line's end).
    std::thread([state] {
        const sigset_t signals = forwardedSignals();
        for (;;) {
            int received = 0;
            if (::sigwait(&signals, &received) != 0 || state->signalChild(received)) continue;
            state->update([](RunState& s) { s.stopAsked = true; });
        }
    }).detach();

    std::thread([state, errorReadEnd] { copyErrorOutput(*state, errorReadEnd); }).detach();

    std::thread([state, router, outputReadEnd] {
        pumpLines(
            outputReadEnd, [&router](std::string line, bool more) { router->handleServerLine(std::move(line), more); },
            [&state](bool reading) {
                state->update([reading](RunState& s) {
                    if (reading) {
                        s.serverOutputWaitingSince = RunState::Clock::now();
                    } else {
                        s.serverOutputWaitingSince.reset();
                    }
                });
            });
        ::close(outputReadEnd);
        state->update([](RunState& s) { s.serverOutputEnded = true; });
    }).detach();

    std::thread([state, router, clientInput] {
        pumpLines(clientInput,
                  [&router](std::string line, bool more) { router->handleClientLine(std::move(line), more); });
        // Calls still waiting for their verdict are settled first: an allowed one still reaches
        // the server, and only then may the server read the end of its input.
        router->finishPendingDecisions();
        state->closeServerInput();
        state->stopServerUnlessItExits();
    }).detach();
}

} // namespace

BridgeProcessHost::BridgeProcessHost(BridgeConfig config, std::shared_ptr<BridgeGatewayClient> gateway,
                                     HostStreams streams)
    : config_(std::move(config)), gateway_(std::move(gateway)), streams_(streams) {}

void BridgeProcessHost::blockForwardedSignals() {
    const sigset_t signals = forwardedSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int BridgeProcessHost::run() {
    if (config_.serverArgv.empty()) {
        writeAll(streams_.errorOutput, "sentrova-mcp-bridge: no server command after --\n");
        return commandLineErrorStatus;
    }
    blockForwardedSignals();

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
    if (const int error = launchServer(config_.serverArgv, pipes, pid); error != 0) {
        pipes.closeAll();
        state->serverInput = -1;
        return launchFailed(error);
    }
    pipes.closeChildEnds();
    state->childPid = pid; // before any thread that signals it

    // A run that cannot start its threads cannot relay at all. The server, left alone, gets
    // SIGTERM as the bridge ends (its parent-death signal).
    try {
        startThreads(state, router, pid, pipes.output.readEnd, pipes.error.readEnd, streams_.clientInput);
    } catch (const std::exception& error) {
        writeAll(streams_.errorOutput,
                 std::string("sentrova-mcp-bridge: cannot start the relay: ") + error.what() + "\n");
        return launchFailedStatus;
    }

    int status = 0;
    {
        std::unique_lock lock(state->progressLock);
        state->progressChanged.wait(lock, [&] { return state->childExited; });
        state->drainServerOutput(lock);
        status = state->childStatus;
    }
    state->errorPassThroughRemoved.store(true, std::memory_order_relaxed);
    if (const std::size_t unhandled = router->unhandledLineCount(); unhandled > 0) {
        writeAll(streams_.errorOutput, "sentrova-mcp-bridge: " + std::to_string(unhandled) +
                                           " lines could not be handled (out of memory) and were not relayed\n");
    }
    // Waits for a write in progress, so that no line is cut; nothing is written after it.
    std::lock_guard lock(state->clientWriteLock);
    state->runOver = true;
    return status;
}

} // namespace sentrova
