#include "BridgeHarness.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace sentrova::e2e {

namespace {

// Writes into a child that has gone must fail with EPIPE, not end the test run.
struct IgnoreSigpipe {
    IgnoreSigpipe() { std::signal(SIGPIPE, SIG_IGN); }
} ignoreSigpipe;

void closeIfOpen(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

} // namespace

std::string bridgePath() { return SENTROVA_BRIDGE_PATH; }
std::string scriptedServerPath() { return SENTROVA_SCRIPTED_SERVER_PATH; }

Environment testEnvironment() {
    Environment env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const auto equals = text.find('=');
        if (equals == std::string::npos || text.rfind("SENTROVA_", 0) == 0) continue;
        env.emplace(text.substr(0, equals), text.substr(equals + 1));
    }
    return env;
}

std::vector<std::string> bridgeArgs(const std::string& gatewayOrigin, const std::vector<std::string>& script) {
    std::vector<std::string> args = {"--gateway", gatewayOrigin, "--worker-name", "e2e-worker", "--",
                                     scriptedServerPath()};
    args.insert(args.end(), script.begin(), script.end());
    return args;
}

namespace {

// One directory per test process, removed with everything in it when the process ends.
struct TemporaryDirectory {
    TemporaryDirectory() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/sentrova-e2e-XXXXXX";
        if (::mkdtemp(pattern.data()) != nullptr) path = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

} // namespace

std::string temporaryPath(const std::string& name) {
    static const TemporaryDirectory directory;
    static std::atomic<int> counter{0};
    return (directory.path.empty() ? std::string("/tmp") : directory.path) + "/" + std::to_string(counter++) + "-" +
           name;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

std::vector<std::string> readNulSeparated(const std::string& path) {
    const std::string contents = readFile(path);
    std::vector<std::string> entries;
    std::size_t start = 0;
    for (std::size_t nul; (nul = contents.find('\0', start)) != std::string::npos; start = nul + 1) {
        entries.push_back(contents.substr(start, nul - start));
    }
    return entries;
}

StreamCollector::StreamCollector(int fd) : fd_(fd), thread_([this] { collect(); }) {}

StreamCollector::~StreamCollector() {
    thread_.join();
    ::close(fd_);
}

void StreamCollector::collect() {
    char chunk[65536];
    for (;;) {
        const ssize_t count = ::read(fd_, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        std::lock_guard lock(mutex_);
        if (count <= 0) {
            ended_ = true;
            changed_.notify_all();
            return;
        }
        text_.append(chunk, static_cast<std::size_t>(count));
        changed_.notify_all();
    }
}

std::string StreamCollector::text() const {
    std::lock_guard lock(mutex_);
    return text_;
}

bool StreamCollector::ended() const {
    std::lock_guard lock(mutex_);
    return ended_;
}

std::optional<std::string> StreamCollector::takeLine(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    std::size_t lf = std::string::npos;
    // Searching only the new bytes keeps reading many lines linear.
    std::size_t searched = taken_;
    const bool found = changed_.wait_for(lock, timeout, [&] {
        lf = text_.find('\n', searched);
        searched = text_.size();
        return lf != std::string::npos || ended_;
    });
    if (!found || lf == std::string::npos) return std::nullopt;
    std::string line = text_.substr(taken_, lf - taken_);
    taken_ = lf + 1;
    return line;
}

bool StreamCollector::waitFor(std::string_view needle, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout,
                             [&] { return text_.find(needle) != std::string::npos || ended_; }) &&
           text_.find(needle) != std::string::npos;
}

bool StreamCollector::waitForEnd(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return ended_; });
}

ChildProcess::ChildProcess(pid_t pid, int input, int output, int errors)
    : pid_(pid), input_(input), output_(std::make_unique<StreamCollector>(output)),
      errors_(std::make_unique<StreamCollector>(errors)) {}

std::unique_ptr<ChildProcess> ChildProcess::start(const std::string& program, const std::vector<std::string>& args,
                                                  const Environment& env) {
    int input[2], output[2], errors[2];
    if (::pipe2(input, O_CLOEXEC) != 0) return nullptr;
    if (::pipe2(output, O_CLOEXEC) != 0) return nullptr;
    if (::pipe2(errors, O_CLOEXEC) != 0) return nullptr;

    std::vector<std::string> words = {program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<std::string> entries;
    for (const auto& [name, value] : env) entries.push_back(name + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    const int error = posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    ::close(errors[1]);
    if (error != 0) {
        ::close(input[1]);
        ::close(output[0]);
        ::close(errors[0]);
        return nullptr;
    }
    return std::unique_ptr<ChildProcess>(new ChildProcess(pid, input[1], output[0], errors[0]));
}

std::unique_ptr<ChildProcess> ChildProcess::startBridge(const std::vector<std::string>& args,
                                                        const Environment& env) {
    return start(bridgePath(), args, env);
}

ChildProcess::~ChildProcess() {
    closeInput();
    if (!status_) {
        ::kill(pid_, SIGKILL);
        waitExit(defaultTimeout);
    }
    // The collectors end when every holder of the pipes (a server the bridge left behind
    // included) has gone; the kill above covers the bridge itself.
    output_.reset();
    errors_.reset();
}

bool ChildProcess::write(std::string_view bytes) {
    while (!bytes.empty()) {
        if (input_ < 0) return false;
        const ssize_t written = ::write(input_, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

void ChildProcess::closeInput() { closeIfOpen(input_); }

std::optional<ExitStatus> ChildProcess::waitExit(std::chrono::milliseconds timeout) {
    if (status_) return status_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int waitStatus = 0;
        const pid_t done = ::waitpid(pid_, &waitStatus, WNOHANG);
        if (done == pid_) {
            ExitStatus status;
            if (WIFEXITED(waitStatus)) status.code = WEXITSTATUS(waitStatus);
            if (WIFSIGNALED(waitStatus)) status.signal = WTERMSIG(waitStatus);
            status_ = status;
            return status_;
        }
        if (done < 0 && errno != EINTR) return std::nullopt;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(5ms);
    }
}

int ChildProcess::waitExitCode(std::chrono::milliseconds timeout) {
    const auto status = waitExit(timeout);
    return status ? status->code : -1;
}

FinishedRun runBridge(const std::vector<std::string>& args, const Environment& env, std::string_view input,
                      std::chrono::milliseconds timeout) {
    FinishedRun run;
    auto bridge = ChildProcess::startBridge(args, env);
    if (!bridge) return run;
    bridge->write(input);
    bridge->closeInput();
    run.status = bridge->waitExit(timeout);
    bridge->output().waitForEnd(timeout);
    bridge->errors().waitForEnd(timeout);
    run.output = bridge->output().text();
    run.errors = bridge->errors().text();
    return run;
}

} // namespace sentrova::e2e
