// Fault injection against the built bridge: a misbehaving gateway, server or client must never
// let a call through, crash the bridge, hang it past its deadline, or lose or cut a line.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "BridgeHarness.hpp"
#include "MCPBridgeCore/Json.hpp"
#include "TestGateway.hpp"

// Sanitizer builds run the same tests with smaller sizes and looser memory checks.
#if defined(__SANITIZE_THREAD__)
#define SENTROVA_FAULTS_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SENTROVA_FAULTS_UNDER_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define SENTROVA_FAULTS_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SENTROVA_FAULTS_UNDER_ASAN 1
#endif
#endif

namespace sentrova::e2e {
namespace {

#if defined(SENTROVA_FAULTS_UNDER_TSAN)
constexpr std::size_t kHugeLineBytes = 50'000'000;
constexpr int kCallsInARow = 10'000;
constexpr int kWarmUpCalls = 1'000;
constexpr bool kCheckResidentMemory = false; // shadow memory grows on its own
#elif defined(SENTROVA_FAULTS_UNDER_ASAN)
constexpr std::size_t kHugeLineBytes = 100'000'000;
constexpr int kCallsInARow = 10'000;
constexpr int kWarmUpCalls = 1'000;
constexpr bool kCheckResidentMemory = false; // the allocator's quarantine grows on its own
#else
constexpr std::size_t kHugeLineBytes = 100'000'000;
constexpr int kCallsInARow = 10'000;
constexpr int kWarmUpCalls = 1'000;
constexpr bool kCheckResidentMemory = true;
#endif

std::string callLine(int id, const std::string& tool = "delete_everything") {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"tools/call","params":{"name":")" + tool +
           R"(","arguments":{"path":"/"}}})";
}

std::string pingLine(int id) { return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"ping"})"; }

std::vector<std::string> withDeadline(double seconds, std::vector<std::string> args) {
    args.insert(args.begin(), {"--deadline", std::to_string(seconds)});
    return args;
}

// Every line the bridge wrote is whole: ends in LF and reads as one JSON object.
void expectWholeMessages(const std::string& output) {
    EXPECT_TRUE(output.empty() || output.back() == '\n') << "output ends in a cut line";
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const auto message = parseJson(line);
        EXPECT_TRUE(message && message->isObject()) << "not a whole message: " << line.substr(0, 200);
    }
}

// The deny answer for id, or "" when the next line is something else.
std::string takeDeny(ChildProcess& bridge, int id, std::chrono::milliseconds timeout = defaultTimeout) {
    const auto line = bridge.readLine(timeout);
    if (!line) return "";
    const auto message = parseJson(*line);
    if (!message || !message->find("id") || !(*message->find("id") == Json::integer(id))) return "";
    const Json* result = message->find("result");
    if (!result || !result->find("isError")) return "";
    return *line;
}

// A gateway on raw sockets on 127.0.0.1: one that speaks broken HTTP or none, or one that allows
// every call with a single write per answer and no Nagle delay, so that thousands of calls run fast.
class RawGateway {
public:
    enum class Behaviour { allow, resetMidAnswer, garbage, hang };

    explicit RawGateway(Behaviour behaviour) : behaviour_(behaviour) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0) {
            ADD_FAILURE() << "cannot listen on 127.0.0.1";
        }
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        if (::pipe2(wake_, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe";
        thread_ = std::thread([this] { serve(); });
    }

    ~RawGateway() {
        const char stop = 's';
        [[maybe_unused]] const ssize_t ignored = ::write(wake_[1], &stop, 1);
        thread_.join();
        for (const auto& connection : connections_) ::close(connection.fd);
        ::close(listener_);
        ::close(wake_[0]);
        ::close(wake_[1]);
    }

    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int requests() const { return requests_.load(); }

private:
    struct Connection {
        int fd;
        std::string buffer;
        bool held = false; // a hanging answer: nothing more is read or written
    };

    void serve() {
        for (;;) {
            std::vector<pollfd> fds = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
            for (const auto& connection : connections_) {
                fds.push_back({connection.fd, static_cast<short>(connection.held ? 0 : POLLIN), 0});
            }
            if (::poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds[0].revents != 0) return;
            std::vector<Connection> open;
            for (std::size_t i = 0; i < fds.size() - 2; ++i) {
                Connection& connection = connections_[i];
                if (fds[i + 2].revents != 0 && !connection.held && !readAndAnswer(connection)) {
                    ::close(connection.fd);
                    continue;
                }
                open.push_back(std::move(connection));
            }
            if (fds[1].revents != 0) {
                const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd >= 0) {
                    const int on = 1;
                    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                    open.push_back({fd, {}});
                }
            }
            connections_ = std::move(open);
        }
    }

    // False once the connection is done with.
    bool readAndAnswer(Connection& connection) {
        char chunk[65536];
        const ssize_t count = ::read(connection.fd, chunk, sizeof chunk);
        if (count <= 0) return false;
        connection.buffer.append(chunk, static_cast<std::size_t>(count));
        for (;;) {
            const std::size_t headersEnd = connection.buffer.find("\r\n\r\n");
            if (headersEnd == std::string::npos) return true;
            std::size_t bodyLength = 0;
            const std::string headers = connection.buffer.substr(0, headersEnd);
            for (const char* name : {"Content-Length: ", "content-length: "}) {
                const std::size_t at = headers.find(name);
                if (at != std::string::npos) bodyLength = std::stoul(headers.substr(at + std::strlen(name)));
            }
            const std::size_t requestEnd = headersEnd + 4 + bodyLength;
            if (behaviour_ == Behaviour::allow && connection.buffer.size() < requestEnd) return true;
            ++requests_;
            switch (behaviour_) {
            case Behaviour::allow: {
                connection.buffer.erase(0, requestEnd);
                const std::string body = R"({"decision":"allow"})";
                const std::string answer = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                                           std::to_string(body.size()) + "\r\n\r\n" + body;
                if (::write(connection.fd, answer.data(), answer.size()) != static_cast<ssize_t>(answer.size())) {
                    return false;
                }
                continue; // keep-alive: the next request may already be buffered
            }
            case Behaviour::resetMidAnswer: {
                const std::string partial =
                    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 20\r\n\r\n{\"decision\":\"al";
                [[maybe_unused]] const ssize_t ignored = ::write(connection.fd, partial.data(), partial.size());
                const linger abort{1, 0}; // close with RST instead of FIN
                ::setsockopt(connection.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
                return false;
            }
            case Behaviour::garbage: {
                std::string noise = "\x16\x03\x01\x02\x00 not http at all \xff\xfe\r\n\r\n{\"decision\":\"allow\"}";
                noise += std::string(5000, '\0');
                [[maybe_unused]] const ssize_t ignored = ::write(connection.fd, noise.data(), noise.size());
                return false;
            }
            case Behaviour::hang:
                connection.held = true; // never answered; closed when the test ends
                return true;
            }
            return false;
        }
    }

    Behaviour behaviour_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};
    int port_ = 0;
    std::atomic<int> requests_{0};
    std::vector<Connection> connections_;
    std::thread thread_;
};

struct ProcessSample {
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    long residentKB = 0;
};

ProcessSample sample(pid_t pid) {
    namespace fs = std::filesystem;
    const std::string proc = "/proc/" + std::to_string(pid);
    ProcessSample s;
    std::error_code error;
    for (auto it = fs::directory_iterator(proc + "/task", error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        ++s.threads;
    }
    for (auto it = fs::directory_iterator(proc + "/fd", error); !error && it != fs::directory_iterator();
         it.increment(error)) {
        ++s.descriptors;
    }
    std::ifstream status(proc + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) s.residentKB = std::stol(line.substr(6));
    }
    return s;
}

// ---------------------------------------------------------------------------------------------

TEST(FaultTests, EveryGatewayFailureDeniesAndNothingReachesTheServer) {
    TestGateway failing500;
    failing500.answerQueries({500, TestGateway::allowBody(), {}});
    TestGateway garbageBody;
    garbageBody.answerQueries({200, "<html>allow</html>", {}});
    TestGateway emptyBody;
    emptyBody.answerQueries({200, "", {}});
    TestGateway hugeBody; // an allow, but longer than any verdict may be
    hugeBody.answerQueries({200, R"({"decision":"allow","pad":")" + std::string(2 << 20, 'x') + "\"}", {}});
    RawGateway reset(RawGateway::Behaviour::resetMidAnswer);
    RawGateway garbage(RawGateway::Behaviour::garbage);
    RawGateway hang(RawGateway::Behaviour::hang);

    struct Case {
        std::string name;
        std::string origin;
        std::string reason;
        double deadline;
    };
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedLocalPort());
    const std::vector<Case> cases = {
        {"refused", refused, "did not answer in time", 20},
        {"status 500", failing500.origin(), "did not answer in time", 20},
        {"garbage body", garbageBody.origin(), "unreadable verdict", 20},
        {"empty body", emptyBody.origin(), "unreadable verdict", 20},
        {"answer over 1 MiB", hugeBody.origin(), "unreadable verdict", 20},
        {"reset mid-answer", reset.origin(), "did not answer in time", 20},
        {"not HTTP", garbage.origin(), "did not answer in time", 20},
        {"hanging", hang.origin(), "timed out", 1.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string record = temporaryPath("gateway-fault.record");
        auto bridge = ChildProcess::startBridge(withDeadline(c.deadline, bridgeArgs(c.origin, {"--record", record, "--serve"})));
        ASSERT_NE(bridge, nullptr);
        const auto started = std::chrono::steady_clock::now();
        for (int id = 1; id <= 3; ++id) {
            ASSERT_TRUE(bridge->writeLine(callLine(id)));
            const std::string deny = takeDeny(*bridge, id);
            EXPECT_NE(deny.find(c.reason), std::string::npos) << deny;
            EXPECT_NE(deny.find("(fail-closed)."), std::string::npos) << deny;
        }
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        // A failure that is known is answered at once; only the silent gateway costs its deadline.
        EXPECT_LT(elapsed, c.deadline < 5 ? 3 * c.deadline + 15 : 15.0);
        ASSERT_TRUE(bridge->writeLine(pingLine(9)));
        bridge->closeInput();
        EXPECT_EQ(bridge->waitExit(), (ExitStatus{0, 0}));
        EXPECT_EQ(readFile(record), pingLine(9) + "\n");
        expectWholeMessages(bridge->output().text());
    }
    EXPECT_GE(hang.requests(), 3);
    EXPECT_GE(reset.requests(), 3);
}

TEST(FaultTests, ServerCrashInTheMiddleOfACall) {
    TestGateway gateway; // allows
    const std::string record = temporaryPath("crash.record");
    // The server takes the call and dies by SIGKILL before it answers.
    auto bridge = ChildProcess::startBridge(bridgeArgs(gateway.origin(), {"--record", record, "--serve-lines", "1",
                                                                          "--kill", "9"}));
    ASSERT_NE(bridge, nullptr);
    ASSERT_TRUE(bridge->writeLine(callLine(1, "slow_tool")));
    // The client's input stays open: the server's end alone must end the run.
    EXPECT_EQ(bridge->waitExit(), (ExitStatus{9, 0}));
    EXPECT_EQ(readFile(record), callLine(1, "slow_tool") + "\n");
    EXPECT_TRUE(bridge->output().waitForEnd(defaultTimeout));
    expectWholeMessages(bridge->output().text());
}

TEST(FaultTests, ServerClosingItsOutputEarlyLosesNoClientLine) {
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedLocalPort());
    const std::string record = temporaryPath("closed-output.record");
    auto bridge =
        ChildProcess::startBridge(bridgeArgs(refused, {"--close-stdout", "--record", record, "--serve"}));
    ASSERT_NE(bridge, nullptr);
    const std::string list = R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})";
    ASSERT_TRUE(bridge->writeLine(pingLine(1)));
    ASSERT_TRUE(bridge->writeLine(list));
    ASSERT_TRUE(bridge->writeLine(callLine(3)));
    EXPECT_NE(takeDeny(*bridge, 3), "");
    ASSERT_TRUE(bridge->writeLine(pingLine(4)));
    bridge->closeInput();
    EXPECT_EQ(bridge->waitExit(), (ExitStatus{0, 0}));
    EXPECT_EQ(readFile(record), pingLine(1) + "\n" + list + "\n" + pingLine(4) + "\n");
    expectWholeMessages(bridge->output().text());
}

TEST(FaultTests, ServerWritingAHugeLineArrivesWhole) {
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedLocalPort());
    const auto timeout = std::chrono::milliseconds(180'000);
    auto bridge = ChildProcess::startBridge(
        bridgeArgs(refused, {"--write-long", std::to_string(kHugeLineBytes), "--serve"}));
    ASSERT_NE(bridge, nullptr);
    const auto line = bridge->readLine(timeout);
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(line->size(), kHugeLineBytes);
    EXPECT_EQ(line->substr(0, 9), R"({"pad":"x)");
    EXPECT_EQ(line->find_first_not_of('x', 8), kHugeLineBytes - 2);
    // Still relaying and still guarding afterwards.
    ASSERT_TRUE(bridge->writeLine(callLine(1)));
    EXPECT_NE(takeDeny(*bridge, 1, timeout), "");
    bridge->closeInput();
    EXPECT_EQ(bridge->waitExit(timeout), (ExitStatus{0, 0}));
}

TEST(FaultTests, ServerWritingBinaryGarbageIsRelayedUnchanged) {
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedLocalPort());
    const std::string garbageFile = temporaryPath("garbage.bin");
    const std::string record = temporaryPath("garbage.record");
    // Random bytes (NULs, invalid UTF-8, CRs, stray LFs) on the server's output; then it serves.
    const std::string script = "head -c 300000 /dev/urandom > \"$1\"; cat \"$1\"; exec cat > \"$2\"";
    auto bridge = ChildProcess::startBridge(
        {"--gateway", refused, "--worker-name", "e2e-worker", "--", "sh", "-c", script, "sh", garbageFile, record});
    ASSERT_NE(bridge, nullptr);

    // What the line pump makes of those bytes: every non-empty line, each with one LF.
    ASSERT_TRUE(bridge->output().waitFor(std::string(1, '\n'), defaultTimeout));
    std::string garbage;
    for (int attempt = 0; attempt < 100 && garbage.size() < 300000; ++attempt) {
        garbage = readFile(garbageFile);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ASSERT_EQ(garbage.size(), 300000u);
    std::string expected;
    std::size_t start = 0;
    while (start < garbage.size()) {
        std::size_t lf = garbage.find('\n', start);
        if (lf == std::string::npos) lf = garbage.size();
        if (lf > start) expected += garbage.substr(start, lf - start) + "\n";
        start = lf + 1;
    }
    // The last piece has no LF of its own yet: it is delivered when the server's output ends,
    // which here is only at exit. So compare the complete lines now and the rest at the end.
    ASSERT_TRUE(bridge->writeLine(callLine(1)));
    ASSERT_TRUE(bridge->output().waitFor("(fail-closed)", defaultTimeout));
    bridge->closeInput();
    EXPECT_EQ(bridge->waitExit(), (ExitStatus{0, 0}));
    ASSERT_TRUE(bridge->output().waitForEnd(defaultTimeout));
    std::string output = bridge->output().text();
    // Take the bridge's own deny answer out; what remains must be the garbage, byte for byte.
    const std::size_t deny = output.find(R"({"id":1,"jsonrpc":"2.0","result":{"content")");
    ASSERT_NE(deny, std::string::npos);
    const std::size_t denyEnd = output.find('\n', deny);
    ASSERT_TRUE(deny == 0 || output[deny - 1] == '\n');
    output.erase(deny, denyEnd + 1 - deny);
    EXPECT_TRUE(output == expected) << "garbage came out as " << output.size() << " bytes, expected "
                                    << expected.size();
    EXPECT_EQ(readFile(record), "");
}

TEST(FaultTests, ClientClosingItsInputWhileAnApprovalIsPending) {
    {
        SCOPED_TRACE("the gateway never answers");
        RawGateway hang(RawGateway::Behaviour::hang);
        const std::string record = temporaryPath("pending-deny.record");
        auto bridge = ChildProcess::startBridge(withDeadline(2, bridgeArgs(hang.origin(), {"--record", record, "--serve"})));
        ASSERT_NE(bridge, nullptr);
        const auto started = std::chrono::steady_clock::now();
        ASSERT_TRUE(bridge->writeLine(callLine(1)));
        bridge->closeInput();
        const std::string deny = takeDeny(*bridge, 1);
        EXPECT_NE(deny.find("timed out"), std::string::npos) << deny;
        EXPECT_EQ(bridge->waitExit(), (ExitStatus{0, 0}));
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        EXPECT_LT(elapsed, 2 + 20.0);
        EXPECT_EQ(readFile(record), "");
        expectWholeMessages(bridge->output().text());
    }
    {
        SCOPED_TRACE("the gateway allows after the client has gone");
        TestGateway late;
        late.answerQueries({200, TestGateway::allowBody(), std::chrono::milliseconds(1000)});
        const std::string record = temporaryPath("pending-allow.record");
        auto bridge = ChildProcess::startBridge(
            bridgeArgs(late.origin(), {"--record", record, "--call-text", "done", "--serve"}));
        ASSERT_NE(bridge, nullptr);
        ASSERT_TRUE(bridge->writeLine(callLine(1, "late_tool")));
        ASSERT_TRUE(late.waitForQueries(1, defaultTimeout));
        bridge->closeInput();
        EXPECT_EQ(bridge->waitExit(), (ExitStatus{0, 0}));
        // The approved call is relayed once, and its answer still reaches the client.
        EXPECT_EQ(readFile(record), callLine(1, "late_tool") + "\n");
        EXPECT_TRUE(bridge->output().waitForEnd(defaultTimeout));
        EXPECT_NE(bridge->output().text().find("done"), std::string::npos);
        expectWholeMessages(bridge->output().text());
    }
}

TEST(FaultTests, AGatewayBehindAPrivateCAIsTrustedOnlyThroughTheCABundleVariables) {
    // A throw-away CA and a certificate for 127.0.0.1 signed by it.
    const std::string dir = temporaryPath("ca"), ca = dir + "/ca.pem";
    const std::string ec = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 ";
    const std::string make = "mkdir " + dir + " && cd " + dir + " && " + ec + "-subj /CN=ca -keyout ca.key " +
                             "-out ca.pem && " + ec + "-subj /CN=gw -addext subjectAltName=IP:127.0.0.1 -CA ca.pem " +
                             "-CAkey ca.key -keyout gw.key -out gw.pem";
    ASSERT_EQ(std::system(("(" + make + ") >/dev/null 2>&1").c_str()), 0);
    httplib::SSLServer https((dir + "/gw.pem").c_str(), (dir + "/gw.key").c_str());
    https.Post("/v1/toolcall", [](const httplib::Request&, httplib::Response& answer) {
        answer.set_content(TestGateway::allowBody(), "application/json");
    });
    const std::string origin = "https://127.0.0.1:" + std::to_string(https.bind_to_any_port("127.0.0.1"));
    std::thread serving([&] { https.listen_after_bind(); });

    const std::vector<std::pair<Environment, bool>> rows = {
        {{}, false},
        {{{"CURL_CA_BUNDLE", ca}}, true},
        {{{"SSL_CERT_FILE", ca}}, true},
        {{{"CURL_CA_BUNDLE", "/etc/ssl/certs/ca-certificates.crt"}, {"SSL_CERT_FILE", ca}}, false},
    };
    for (const auto& [variables, trusted] : rows) {
        SCOPED_TRACE(::testing::PrintToString(variables));
        Environment env = testEnvironment();
        env.erase("CURL_CA_BUNDLE");
        env.erase("SSL_CERT_FILE");
        env.insert(variables.begin(), variables.end());
        auto bridge = ChildProcess::startBridge(bridgeArgs(origin, {"--call-text", "through", "--serve"}), env);
        ASSERT_TRUE(bridge->writeLine(callLine(1)));
        EXPECT_NE(bridge->readLine().value_or("").find(trusted ? "through" : "(fail-closed)"), std::string::npos);
        bridge->closeInput();
        EXPECT_EQ(bridge->waitExitCode(), 0);
    }
    https.stop();
    serving.join();
}

TEST(FaultTests, ManyCallsInARowLeaveNoThreadDescriptorOrMemoryGrowth) {
    RawGateway gateway(RawGateway::Behaviour::allow);
    auto bridge = ChildProcess::startBridge(bridgeArgs(gateway.origin(), {"--call-text", "ok", "--serve"}));
    ASSERT_NE(bridge, nullptr);
    const auto timeout = std::chrono::milliseconds(600'000);

    int sent = 0, answered = 0;
    auto runCalls = [&](int upTo) {
        // Written in blocks, so the pipes stay busy without the test waiting for each answer.
        while (answered < upTo) {
            std::string block;
            while (sent < upTo && sent - answered < 200) block += callLine(++sent, "echo") + "\n";
            ASSERT_TRUE(bridge->write(block));
            // Decisions run side by side, so the answers of a block may come in any order.
            std::set<std::string> ids;
            const int firstOfBlock = answered;
            while (answered < sent) {
                const auto line = bridge->readLine(timeout);
                ASSERT_TRUE(line.has_value()) << "no answer to call " << answered + 1;
                ++answered;
                ids.insert(line->substr(0, line->find(',', line->find("\"id\":"))));
                ASSERT_NE(line->find("\"ok\""), std::string::npos) << *line;
            }
            ASSERT_EQ(static_cast<int>(ids.size()), sent - firstOfBlock) << "an id answered twice";
        }
    };
    auto settledSample = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // transient resolver threads end
        return sample(bridge->pid());
    };

    runCalls(kWarmUpCalls);
    if (HasFatalFailure()) return;
    const ProcessSample early = settledSample();
    runCalls(kCallsInARow);
    if (HasFatalFailure()) return;
    const ProcessSample late = settledSample();
    std::printf("after %d calls: %zu threads, %zu fds, %ld kB; after %d calls: %zu threads, %zu fds, %ld kB\n",
                kWarmUpCalls, early.threads, early.descriptors, early.residentKB, kCallsInARow, late.threads,
                late.descriptors, late.residentKB);

    EXPECT_GT(early.threads, 0u);
    EXPECT_LE(late.threads, early.threads + 1);
    EXPECT_LE(late.descriptors, early.descriptors + 2);
    if (kCheckResidentMemory) {
        EXPECT_LE(late.residentKB, early.residentKB + 8 * 1024);
    }
    EXPECT_EQ(gateway.requests(), kCallsInARow);

    bridge->closeInput();
    EXPECT_EQ(bridge->waitExit(timeout), (ExitStatus{0, 0}));
}

} // namespace
} // namespace sentrova::e2e
