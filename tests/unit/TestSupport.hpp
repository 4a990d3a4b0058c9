// What several unit test files share: polling, case tables read from tests/unit/cases, loopback
// sockets, and the dev gateway embedded as a working gateway on 127.0.0.1.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sentrova-dev-gateway/DevGatewayServer.hpp"

namespace sentrova::test {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Polls a condition that another thread makes true, up to a generous limit.
template <typename Condition> bool eventually(Condition condition, Clock::duration limit = 5s) {
    for (const auto end = Clock::now() + limit; !condition();) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

inline double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// \t \n \r \0 \\ and \xHH in a case table field stand for their bytes.
inline std::string unescaped(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\\' && i + 1 < text.size()) {
            const char e = text[++i];
            c = e == 't' ? '\t' : e == 'n' ? '\n' : e == 'r' ? '\r' : e == '0' ? '\0' : e;
            if (e == 'x') c = static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)), i += 2;
        }
        out.push_back(c);
    }
    return out;
}

// Rows of a case table: tab-separated fields, unescaped unless asked for raw; "#" lines and
// blank lines skipped.
inline std::vector<std::vector<std::string>> caseRows(const std::string& name, bool raw = false) {
    std::ifstream file(std::string(SENTROVA_TEST_CASES) + "/" + name);
    EXPECT_TRUE(file) << name;
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields(1);
        for (char c : line) {
            if (c == '\t') fields.emplace_back();
            else fields.back().push_back(c);
        }
        if (!raw) for (std::string& field : fields) field = unescaped(field);
        rows.push_back(std::move(fields));
    }
    return rows;
}

// The words of a raw field: split at blanks, then unescaped; '' is an empty word.
inline std::vector<std::string> words(const std::string& field) {
    std::vector<std::string> out;
    std::istringstream split(field);
    for (std::string word; split >> word;) out.push_back(word == "''" ? "" : unescaped(word));
    return out;
}

// A TCP socket on 127.0.0.1: connected to a port, or (port 0) listening on a free one, set here.
inline int loopbackSocket(int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* raw = reinterpret_cast<sockaddr*>(&address);
    if (port != 0) return ::connect(fd, raw, length) == 0 ? fd : (::close(fd), -1);
    ::bind(fd, raw, length), ::listen(fd, 64), ::getsockname(fd, raw, &length);
    port = ntohs(address.sin_port);
    return fd;
}

// The length of the first whole HTTP message (head and Content-Length body) in text; 0 if none yet.
inline std::size_t wholeMessage(const std::string& text) {
    const std::size_t end = text.find("\r\n\r\n"), field = text.find("Content-Length: ");
    if (end == std::string::npos) return 0;
    const std::size_t total = end + 4 + (field < end ? std::stoul(text.substr(field + 16)) : 0);
    return text.size() >= total ? total : 0;
}

inline std::string temporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "sentrova-unit-XXXXXX").string();
    return ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

// The project's dev gateway serving a policy on 127.0.0.1, its audit log and pin state in a
// directory: a fresh one, removed at the end, or one given (kept, as for a later run).
class LoopbackGateway {
public:
    static constexpr const char* token = "s3cret-token";
    explicit LoopbackGateway(const std::string& policyText, std::string directory = {}, std::string logPath = {})
        : directory_(directory.empty() ? temporaryDirectory() : directory), keep_(!directory.empty()) {
        auto policy = DevGatewayPolicy::parse(policyText, "inline");
        auto log = DevGatewayAuditLog::open(logPath.empty() ? (directory_ / "audit.jsonl").string() : logPath, 64);
        auto pins = DevGatewayPinStore::load((directory_ / "state.json").string());
        server_ = std::make_unique<DevGatewayServer>(std::get<DevGatewayPolicy>(std::move(policy)),
                                                     std::move(std::get<std::unique_ptr<DevGatewayAuditLog>>(log)),
                                                     token, std::move(std::get<std::unique_ptr<DevGatewayPinStore>>(pins)));
        port_ = server_->bind("127.0.0.1", 0).value_or(0);
        serving_ = std::thread([this] { server_->run(); });
    }
    ~LoopbackGateway() {
        server_->stop();
        serving_.join();
        server_.reset();
        std::error_code ignored;
        if (!keep_) std::filesystem::remove_all(directory_, ignored);
    }
    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::vector<Json> auditRecords() const {
        std::ifstream file(directory_ / "audit.jsonl");
        std::vector<Json> records;
        for (std::string line; std::getline(file, line);) records.push_back(parseJson(line).value_or(Json()));
        return records;
    }

private:
    std::filesystem::path directory_;
    bool keep_;
    std::unique_ptr<DevGatewayServer> server_;
    int port_ = 0;
    std::thread serving_;
};

} // namespace sentrova::test
