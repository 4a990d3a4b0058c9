#pragma once

// Runs the built bridge (or any program) as a real child with real pipes: write its input,
// read its output and error streams with time-outs, wait for its exit status.

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace sentrova::e2e {

using namespace std::chrono_literals;

// Generous: the CI machine is slow and sanitizer builds are slower still.
inline constexpr std::chrono::milliseconds defaultTimeout = 30s;

std::string bridgePath();
std::string scriptedServerPath();

using Environment = std::map<std::string, std::string>;

// This process's environment without any SENTROVA_ variable (PATH and sanitizer options stay).
Environment testEnvironment();

// The bridge's usual words: gateway, worker name, then "--" and the scripted server with script.
std::vector<std::string> bridgeArgs(const std::string& gatewayOrigin, const std::vector<std::string>& script);

// A fresh path in a per-process temporary directory (the file does not exist yet).
std::string temporaryPath(const std::string& name);
std::string readFile(const std::string& path);
// Entries of a file written as NUL-terminated strings (--env-file, --args-file).
std::vector<std::string> readNulSeparated(const std::string& path);

struct ExitStatus {
    int code = -1;  // exit code, or -1 when a signal ended the process
    int signal = 0; // the signal that ended it, or 0
    friend bool operator==(const ExitStatus&, const ExitStatus&) = default;
};

// Collects one output stream of the child on a thread of its own.
class StreamCollector {
public:
    explicit StreamCollector(int fd);
    ~StreamCollector();
    StreamCollector(const StreamCollector&) = delete;
    StreamCollector& operator=(const StreamCollector&) = delete;

    std::string text() const;
    bool ended() const;
    // Waits until the stream holds a complete line past the lines already taken.
    std::optional<std::string> takeLine(std::chrono::milliseconds timeout);
    // Waits until the stream contains needle (anywhere, taken lines included).
    bool waitFor(std::string_view needle, std::chrono::milliseconds timeout) const;
    bool waitForEnd(std::chrono::milliseconds timeout) const;

private:
    void collect();

    int fd_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::string text_;
    std::size_t taken_ = 0;
    bool ended_ = false;
    std::thread thread_;
};

class ChildProcess {
public:
    // Starts program with args (after the program name) and exactly env; nullptr if it cannot start.
    static std::unique_ptr<ChildProcess> start(const std::string& program, const std::vector<std::string>& args,
                                               const Environment& env);
    // Starts the built bridge.
    static std::unique_ptr<ChildProcess> startBridge(const std::vector<std::string>& args,
                                                     const Environment& env = testEnvironment());
    ~ChildProcess(); // kills the child if it still runs

    // False once the child no longer reads its input.
    bool write(std::string_view bytes);
    bool writeLine(std::string_view line) { return write(std::string(line) + "\n"); }
    void closeInput();

    // The next line of standard output, without its LF.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = defaultTimeout) {
        return output_->takeLine(timeout);
    }
    StreamCollector& output() { return *output_; }
    StreamCollector& errors() { return *errors_; }

    std::optional<ExitStatus> waitExit(std::chrono::milliseconds timeout = defaultTimeout);
    // The exit code, or -1 on a signal or a time-out.
    int waitExitCode(std::chrono::milliseconds timeout = defaultTimeout);
    pid_t pid() const { return pid_; }

private:
    ChildProcess(pid_t pid, int input, int output, int errors);

    pid_t pid_;
    int input_;
    std::unique_ptr<StreamCollector> output_;
    std::unique_ptr<StreamCollector> errors_;
    std::optional<ExitStatus> status_;
};

// One complete run: the given input written and closed, then everything collected.
struct FinishedRun {
    std::string output;
    std::string errors;
    std::optional<ExitStatus> status;
};
FinishedRun runBridge(const std::vector<std::string>& args, const Environment& env, std::string_view input = {},
                      std::chrono::milliseconds timeout = defaultTimeout);

} // namespace sentrova::e2e
