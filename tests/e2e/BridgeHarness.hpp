#pragma once

// Drives the built bridge as a real child on real pipes, with sh scripts as its MCP servers
// and the project's own dev gateway (embedded, on 127.0.0.1) as its policy gateway.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include "MCPBridgeCore/Json.hpp"
#include "sentrova-dev-gateway/DevGatewayServer.hpp"

extern char** environ;

namespace sentrova::e2e {

using namespace std::chrono_literals;
using Environment = std::map<std::string, std::string>;
inline constexpr auto kTimeout = 30s; // generous: sanitizer builds on a loaded machine are slow
inline const std::string kToken = "e2e token/=1";

// This process's environment without SENTROVA_ variables, plus the dev gateway's token.
inline Environment testEnvironment() {
    Environment env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        if (text.rfind("SENTROVA_", 0) != 0 && text.find('=') != std::string::npos) {
            env.emplace(text.substr(0, text.find('=')), text.substr(text.find('=') + 1));
        }
    }
    env["SENTROVA_GATEWAY_TOKEN"] = kToken;
    return env;
}

// A fresh path in a directory of this test process, removed with everything in it at the end.
inline std::string temporaryPath(const std::string& name) {
    static const struct Directory {
        std::string path = std::filesystem::temp_directory_path().string() + "/sentrova-e2e-XXXXXX";
        bool made = ::mkdtemp(path.data()) != nullptr;
        ~Directory() { std::error_code ignored; made && std::filesystem::remove_all(path, ignored); }
    } directory;
    static std::atomic<int> counter = 0;
    return directory.path + "/" + std::to_string(counter++) + "-" + name;
}
inline std::string readFile(const std::string& path) {
    std::ostringstream contents;
    contents << std::ifstream(path, std::ios::binary).rdbuf();
    return contents.str();
}
inline void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

// An MCP server in sh: appends every line it gets to the file $0 and answers tools/list with
// the tools in the file $2 and tools/call with the result $1 (ids written compactly, first).
inline const std::string kServer =
    R"sh(while IFS= read -r l; do printf '%s\n' "$l" >> "$0"; i=${l#*\"id\":}; i=${i%%,*}
case $l in *'"id":'*'"tools/call"'*) printf '{"jsonrpc":"2.0","id":%s,"result":%s}\n' "$i" "$1";;
*'"id":'*'"tools/list"'*) printf '{"jsonrpc":"2.0","id":%s,"result":{"tools":%s}}\n' "$i" "$(cat "$2")";; esac; done)sh";

// The bridge's words: gateway, worker name, then "--" and an sh server script with its words.
inline std::vector<std::string> bridgeArgs(const std::string& gateway, const std::string& script,
                                           const std::vector<std::string>& words = {}) {
    std::vector<std::string> args = {"--gateway", gateway, "--worker-name", "e2e-worker", "--", "sh", "-c", script};
    args.insert(args.end(), words.begin(), words.end());
    return args;
}

inline std::string callLine(const std::string& id, const std::string& tool, const std::string& extra = "") {
    return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"tools/call","params":{"name":")" + tool + "\"" + extra + "}}";
}
inline std::string pingLine(int id) { return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"ping"})"; }

// The built bridge (or another program) as a child: its input a pipe, its output a pipe read on a
// thread of its own, its error output a file.
class Child {
public:
    explicit Child(const std::vector<std::string>& args, const Environment& env = testEnvironment(),
                   const std::string& program = SENTROVA_BRIDGE_PATH)
        : errorsPath_(temporaryPath("stderr")) {
        static const auto ignored = std::signal(SIGPIPE, SIG_IGN); // writes to a child that has gone fail
        (void)ignored;
        int in[2], out[2];
        EXPECT_TRUE(::pipe2(in, O_CLOEXEC) == 0 && ::pipe2(out, O_CLOEXEC) == 0);
        std::vector<std::string> words = {program}, entries;
        words.insert(words.end(), args.begin(), args.end());
        for (const auto& [name, value] : env) entries.push_back(name + "=" + value);
        std::vector<char*> argv, envp;
        for (auto& word : words) argv.push_back(word.data());
        for (auto& entry : entries) envp.push_back(entry.data());
        argv.push_back(nullptr), envp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addopen(&actions, 2, errorsPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawnattr_t attributes; // the child starts with SIGPIPE as it should be, not ignored
        posix_spawnattr_init(&attributes);
        sigset_t defaults;
        sigemptyset(&defaults), sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        EXPECT_EQ(posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), envp.data()), 0);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]), ::close(out[1]);
        input_ = in[1], output_ = out[0];
        reader_ = std::thread([this] { collect(); });
    }
    ~Child() {
        closeInput();
        if (!status_) ::kill(pid, SIGKILL), waitExit();
        reader_.join(); // ends once every holder of the output pipe has gone
        ::close(output_);
    }
    bool write(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = input_ < 0 ? -1 : ::write(input_, bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        return true;
    }
    bool writeLine(const std::string& line) { return write(line + "\n"); }
    void closeInput() {
        if (input_ >= 0) ::close(input_);
        input_ = -1;
    }
    // The next line of output, without its LF.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout = kTimeout) {
        std::unique_lock lock(mutex_);
        std::size_t lf = std::string::npos, searched = taken_; // only new bytes are searched
        changed_.wait_for(lock, timeout, [&] {
            lf = text_.find('\n', searched), searched = text_.size();
            return lf != std::string::npos || ended_;
        });
        if (lf == std::string::npos) return std::nullopt;
        std::string line = text_.substr(taken_, lf - taken_);
        taken_ = lf + 1;
        return line;
    }
    std::string send(const std::string& line) { return writeLine(line) ? readLine().value_or("(none)") : "(closed)"; }
    // The exit code, or minus the signal that ended the child; nullopt while it runs.
    std::optional<int> waitExit(std::chrono::milliseconds timeout = kTimeout) {
        const auto giveUp = std::chrono::steady_clock::now() + timeout;
        for (int raw = 0; !status_ && std::chrono::steady_clock::now() < giveUp; std::this_thread::sleep_for(5ms)) {
            if (::waitpid(pid, &raw, WNOHANG) == pid) status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
        }
        return status_;
    }
    // Closes the input, checks the exit status, and returns the output not yet read as lines.
    std::string finish(int expected = 0) {
        closeInput();
        EXPECT_EQ(waitExit(), expected);
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kTimeout, [&] { return ended_; });
        return text_.substr(taken_);
    }
    std::string errors() const { return readFile(errorsPath_); }

    pid_t pid = -1;

private:
    void collect() {
        char chunk[65536];
        for (ssize_t count; (count = ::read(output_, chunk, sizeof chunk)) > 0 || (count < 0 && errno == EINTR);) {
            std::lock_guard lock(mutex_);
            text_.append(chunk, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            changed_.notify_all();
        }
        std::lock_guard lock(mutex_);
        ended_ = true;
        changed_.notify_all();
    }
    const std::string errorsPath_;
    int input_ = -1, output_ = -1;
    std::optional<int> status_;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string text_;
    std::size_t taken_ = 0;
    bool ended_ = false;
};

// The dev gateway in this process with a policy of its own; its audit log tells what it got.
class DevGateway {
public:
    explicit DevGateway(const std::string& policy) : log_(temporaryPath("audit.jsonl")) {
        auto opened = DevGatewayAuditLog::open(log_);
        auto parsed = DevGatewayPolicy::parse(policy, "test policy");
        EXPECT_EQ(parsed.index(), 0u) << std::get<1>(parsed);
        server_ = std::make_unique<DevGatewayServer>(std::get<0>(std::move(parsed)),
                                                     std::move(std::get<0>(opened)), kToken);
        url = "http://127.0.0.1:" + std::to_string(server_->bind("127.0.0.1", 0).value_or(0));
        thread_ = std::thread([this] { server_->run(); });
    }
    ~DevGateway() { server_->stop(), thread_.join(); }
    // The audit records of one kind ("toolcall", "event"), waiting until there are at least count.
    std::vector<Json> records(const std::string& kind, std::size_t count = 0) const {
        std::vector<Json> found;
        for (const auto giveUp = std::chrono::steady_clock::now() + kTimeout;; std::this_thread::sleep_for(10ms)) {
            found.clear();
            std::istringstream lines(readFile(log_));
            for (std::string line; std::getline(lines, line);) {
                auto record = parseJson(line);
                if (record && record->find("kind") && record->find("kind")->stringValue() == kind) found.push_back(*record);
            }
            if (found.size() >= count || std::chrono::steady_clock::now() > giveUp) return found;
        }
    }
    std::string url;

private:
    std::string log_;
    std::unique_ptr<DevGatewayServer> server_;
    std::thread thread_;
};

// The member at a dotted path ("query.pinHash"): a string's text, other values as JSON, "" when absent.
inline std::string member(const Json& object, const std::string& path) {
    std::optional<Json> value = object;
    for (std::size_t start = 0, dot = 0; value && dot != std::string::npos; start = dot + 1) {
        dot = path.find('.', start);
        value = value->find(path.substr(start, dot - start));
    }
    return value && value->isString() ? std::string(value->stringValue()) : value ? writeJson(*value).value_or("") : "";
}

// A gateway that speaks broken HTTP: once a request's headers are in, it writes answer and
// closes (with a reset when asked); an empty answer holds the connection open unanswered.
class BrokenGateway {
public:
    BrokenGateway(std::string answer, bool reset = false) : answer_(std::move(answer)), reset_(reset) {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), length), 0);
        ::listen(listener_, 16), ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~BrokenGateway() {
        ::shutdown(listener_, SHUT_RDWR); // wakes accept()
        thread_.join();
        for (int fd : held_) ::close(fd);
        ::close(listener_);
    }
    std::string url;
    std::atomic<int> connections = 0;

private:
    void serve() {
        for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ++connections) {
            if (answer_.empty()) {
                held_.push_back(fd);
                continue;
            }
            std::string request;
            char chunk[4096];
            for (ssize_t n; request.find("\r\n\r\n") == std::string::npos && (n = ::read(fd, chunk, sizeof chunk)) > 0;) {
                request.append(chunk, static_cast<std::size_t>(n));
            }
            [[maybe_unused]] const ssize_t ignored = ::write(fd, answer_.data(), answer_.size());
            const linger abort{1, 0}; // close with RST instead of FIN
            if (reset_) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
            ::close(fd);
        }
    }
    std::string answer_;
    bool reset_;
    int listener_ = -1;
    std::vector<int> held_;
    std::thread thread_;
};

// A gateway that is down: nothing listens on port 1, so every connection is refused at once.
inline const std::string kDownGateway = "http://127.0.0.1:1";

} // namespace sentrova::e2e
