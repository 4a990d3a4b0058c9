#include <gtest/gtest.h>
#include <httplib.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "MCPBridgeCore/CurlLibrary.hpp"
#include "MCPBridgeCore/HTTPBridgeGatewayClient.hpp"

namespace sentrova {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const std::string allowBody = R"({"decision":"allow"})";

// "allow", or the deny reason: readable in failure messages.
std::string verdict(const BridgeDecision& decision) { return decision.isAllow() ? "allow" : decision.reason(); }
std::string reason(std::string_view text) { return std::string(text); }

BridgeToolCallQuery sampleQuery(std::string requestID = "REQ-1") {
    BridgeToolCallQuery query;
    query.workerName = "worker-1";
    query.serverCommand = "npx -y server";
    query.tool = "write_file";
    query.argumentsJSON = R"({"path":"/tmp/a"})";
    query.risk = BridgeRisk::critical;
    query.requestID = std::move(requestID);
    return query;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Polls a condition for up to `limit`; the servers record on their own threads.
template <typename Condition> bool eventually(Condition condition, Clock::duration limit = 5s) {
    auto end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// A loopback port that is bound but never listens, so every connection to it is refused.
class RefusingPort {
public:
    RefusingPort() : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~RefusingPort() { ::close(fd_); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    int fd_;
    int port_ = 0;
};

// The gateway as a real HTTP server: answers decisions with a settable status, body and delay.
class HttplibGateway {
public:
    struct Received {
        std::string path, body, contentType;
    };

    HttplibGateway() {
        server_.set_keep_alive_max_count(100);
        server_.set_tcp_nodelay(true); // one answer must not wait for a delayed ACK
        // Idle keep-alive connections each hold a server thread; leave room for concurrent callers.
        server_.new_task_queue = [] { return new httplib::ThreadPool(32); };
        server_.Post("/v1/toolcall", [this](const httplib::Request& request, httplib::Response& response) {
            auto [status, body, delay] = record(request);
            std::this_thread::sleep_for(delay);
            response.status = status;
            response.set_content(body, "application/json");
        });
        server_.Post("/v1/event", [this](const httplib::Request& request, httplib::Response& response) {
            record(request);
            response.status = 500; // never looked at by the client
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~HttplibGateway() {
        server_.stop();
        thread_.join();
    }

    std::string url(const std::string& suffix = "") const { return "http://127.0.0.1:" + std::to_string(port_) + suffix; }
    void answer(int status, std::string body, std::chrono::milliseconds delay = 0ms) {
        std::lock_guard<std::mutex> guard(lock_);
        status_ = status, body_ = std::move(body), delay_ = delay;
    }
    std::vector<Received> received() {
        std::lock_guard<std::mutex> guard(lock_);
        return received_;
    }

private:
    std::tuple<int, std::string, std::chrono::milliseconds> record(const httplib::Request& request) {
        std::lock_guard<std::mutex> guard(lock_);
        received_.push_back({request.path, request.body, request.get_header_value("Content-Type")});
        return {status_, body_, delay_};
    }

    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    std::mutex lock_;
    int status_ = 200;
    std::string body_ = allowBody;
    std::chrono::milliseconds delay_{0};
    std::vector<Received> received_;
};

// A bare HTTP/1.1 peer on plain sockets, for what a full server hides: the exact request bytes,
// the number of TCP connections, and a client that closes its connection while its request is open.
class RawGateway {
public:
    explicit RawGateway(bool answers) : answers_(answers), listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        ::listen(listener_, 16);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~RawGateway() {
        stopping_ = true;
        thread_.join();
        ::close(listener_);
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    int connections() {
        std::lock_guard<std::mutex> guard(lock_);
        return connections_;
    }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> guard(lock_);
        return requests_;
    }
    bool sawUnansweredRequestClosed() {
        std::lock_guard<std::mutex> guard(lock_);
        return closedWhileOpen_;
    }

private:
    struct Connection {
        int fd;
        std::string buffer;
        bool open = false; // a request is waiting for an answer that never comes
    };

    // Cuts one complete request (head and Content-Length body) off the front of the buffer.
    static std::optional<std::string> takeRequest(std::string& buffer) {
        auto headEnd = buffer.find("\r\n\r\n");
        if (headEnd == std::string::npos) return std::nullopt;
        std::string head = buffer.substr(0, headEnd);
        for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        auto field = head.find("\r\ncontent-length:");
        std::size_t bodyLength = field == std::string::npos ? 0 : std::stoul(head.substr(field + 17));
        std::size_t total = headEnd + 4 + bodyLength;
        if (buffer.size() < total) return std::nullopt;
        std::string request = buffer.substr(0, total);
        buffer.erase(0, total);
        return request;
    }

    void serve() {
        std::vector<Connection> connections;
        while (!stopping_) {
            std::vector<pollfd> watched{{listener_, POLLIN, 0}};
            for (auto& connection : connections) watched.push_back({connection.fd, POLLIN, 0});
            ::poll(watched.data(), watched.size(), 20);
            if (watched[0].revents & POLLIN) {
                int fd = ::accept(listener_, nullptr, nullptr);
                std::lock_guard<std::mutex> guard(lock_);
                if (fd >= 0) connections.push_back({fd, {}}), ++connections_;
            }
            for (std::size_t i = 1; i < watched.size(); ++i) {
                if (!(watched[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                Connection& connection = connections[i - 1];
                char chunk[65536];
                ssize_t got = ::recv(connection.fd, chunk, sizeof chunk, 0);
                if (got <= 0) {
                    std::lock_guard<std::mutex> guard(lock_);
                    closedWhileOpen_ = closedWhileOpen_ || connection.open;
                    ::close(connection.fd);
                    connection.fd = -1;
                    continue;
                }
                connection.buffer.append(chunk, static_cast<std::size_t>(got));
                while (auto request = takeRequest(connection.buffer)) {
                    std::lock_guard<std::mutex> guard(lock_);
                    requests_.push_back(*request);
                    connection.open = !answers_;
                    if (!answers_) continue;
                    std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                                        std::to_string(allowBody.size()) + "\r\n\r\n" + allowBody;
                    ::send(connection.fd, reply.data(), reply.size(), MSG_NOSIGNAL);
                }
            }
            std::erase_if(connections, [](const Connection& connection) { return connection.fd < 0; });
        }
        for (auto& connection : connections) ::close(connection.fd);
    }

    bool answers_;
    int listener_;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex lock_;
    int connections_ = 0;
    std::vector<std::string> requests_;
    bool closedWhileOpen_ = false;
};

class HTTPBridgeGatewayClientTests : public testing::Test {
protected:
    // libcurl honours the proxy variables; the loopback gateway must be reached directly.
    void SetUp() override {
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            ::unsetenv(name);
    }
};

TEST_F(HTTPBridgeGatewayClientTests, ResolutionKeepsOnlySchemeAndAuthorityOfTheBase) {
    auto resolve = HTTPBridgeGatewayClient::resolve;
    EXPECT_EQ(resolve("http://127.0.0.1:8080/api/?x=1#frag", "/v1/toolcall"), "http://127.0.0.1:8080/v1/toolcall");
    EXPECT_EQ(resolve("https://user:pw@gw.example:9443", "/v1/event"), "https://user:pw@gw.example:9443/v1/event");
    // Without a scheme the reference still resolves; it simply cannot be sent.
    EXPECT_EQ(resolve("gateway.example/api", "/v1/toolcall"), "/v1/toolcall");
    EXPECT_EQ(resolve("//gw.example:81/x?y", "/v1/toolcall"), "//gw.example:81/v1/toolcall");
    EXPECT_EQ(resolve("localhost:8080", "/v1/toolcall"), "localhost:/v1/toolcall");
    EXPECT_EQ(resolve("", "/v1/toolcall"), std::nullopt);
    EXPECT_EQ(resolve("http://gw.example/a b", "/v1/toolcall"), std::nullopt);
    EXPECT_EQ(resolve("http://gw.example/%zz", "/v1/toolcall"), std::nullopt);
}

TEST_F(HTTPBridgeGatewayClientTests, EveryAnswerMapsToItsDecision) {
    HttplibGateway gateway;
    struct Row {
        int status;
        std::string body;
        std::string expected;
    } rows[] = {
        {200, allowBody, "allow"},
        {200, R"({"decision":"deny","reason":"no writes"})", "no writes"},
        {200, R"({"decision":"deny"})", reason(GatewayDenyReason::policyDefault)},
        {200, "", reason(GatewayDenyReason::unreadableVerdict)},
        {200, "<html>busy</html>", reason(GatewayDenyReason::unreadableVerdict)},
        {201, allowBody, reason(GatewayDenyReason::noAnswer)},
        {204, allowBody, reason(GatewayDenyReason::noAnswer)},
        {302, allowBody, reason(GatewayDenyReason::noAnswer)},
        {500, allowBody, reason(GatewayDenyReason::noAnswer)},
    };
    for (const Row& row : rows) {
        // A client of its own per answer: a body sent with 204 may be left on a reused connection.
        HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 10);
        gateway.answer(row.status, row.body);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), row.expected) << row.status << " " << row.body;
    }
    auto received = gateway.received();
    ASSERT_EQ(received.size(), std::size(rows));
    EXPECT_EQ(received[0].path, "/v1/toolcall");
    EXPECT_EQ(received[0].body, sampleQuery().httpBody());
    EXPECT_EQ(received[0].contentType, "application/json");
}

TEST_F(HTTPBridgeGatewayClientTests, RefusedConnectionDeniesWithoutWaitingOutTheDeadline) {
    RefusingPort port;
    HTTPBridgeGatewayClient client(port.url(), "token", 30);
    auto start = Clock::now();
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), reason(GatewayDenyReason::noAnswer));
    EXPECT_LT(secondsSince(start), 5.0);
}

TEST_F(HTTPBridgeGatewayClientTests, SilentGatewayTimesOutAtTheDeadlineAndTheRequestIsCancelled) {
    RawGateway gateway(/*answers=*/false);
    HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 0.5);
    auto start = Clock::now();
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), reason(GatewayDenyReason::timedOut));
    double waited = secondsSince(start);
    EXPECT_GE(waited, 0.45);
    EXPECT_LT(waited, 3.0);
    EXPECT_TRUE(eventually([&] { return gateway.sawUnansweredRequestClosed(); }));
    EXPECT_EQ(gateway.requests().size(), 1u);

    // A decision withdrawn by its caller (the client cancelled the call) is given up the same
    // way, and its handler never runs.
    RawGateway silent(/*answers=*/false);
    HTTPBridgeGatewayClient patient(silent.url(), std::nullopt, 60);
    std::atomic<bool> handled{false};
    auto handle = patient.startDecision(sampleQuery(), [&](BridgeDecision) { handled = true; });
    ASSERT_TRUE(eventually([&] { return silent.requests().size() == 1; }));
    handle->cancel();
    EXPECT_TRUE(eventually([&] { return silent.sawUnansweredRequestClosed(); }));
    EXPECT_FALSE(handled);
}

TEST_F(HTTPBridgeGatewayClientTests, ZeroNegativeAndNaNDeadlinesTimeOutAtOnceInfinityWaits) {
    HttplibGateway gateway;
    gateway.answer(200, allowBody, 300ms); // so that no answer can be there before the wait ends
    for (double deadline : {0.0, -1.0, -std::numeric_limits<double>::infinity(), std::nan("")}) {
        HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, deadline);
        auto start = Clock::now();
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), reason(GatewayDenyReason::timedOut)) << deadline;
        EXPECT_LT(secondsSince(start), 0.25) << deadline;
    }
    for (double deadline : {std::numeric_limits<double>::infinity(), 1e300}) {
        HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, deadline);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow") << deadline;
    }
}

TEST_F(HTTPBridgeGatewayClientTests, HeadersOnTheWire) {
    RawGateway gateway(/*answers=*/true);
    auto requestWithToken = [&](std::optional<std::string> token) {
        HTTPBridgeGatewayClient client(gateway.url(), token, 10);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
        return gateway.requests().back();
    };
    std::string plain = requestWithToken(std::nullopt);
    EXPECT_TRUE(plain.starts_with("POST /v1/toolcall HTTP/1.1\r\n")) << plain;
    EXPECT_NE(plain.find("\r\nContent-Type: application/json\r\n"), std::string::npos) << plain;
    EXPECT_EQ(plain.find("Authorization"), std::string::npos) << plain;
    EXPECT_TRUE(plain.ends_with("\r\n\r\n" + sampleQuery().httpBody())) << plain;
    EXPECT_NE(requestWithToken("s3cr3t").find("\r\nAuthorization: Bearer s3cr3t\r\n"), std::string::npos);
    EXPECT_NE(requestWithToken("").find("\r\nAuthorization: Bearer \r\n"), std::string::npos);

    // A large event (a screenshot) goes out whole at once, without waiting for "100 Continue".
    HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 10);
    BridgeEvent screenshot = BridgeEvent::screenshot("worker-1", std::string(2'000'000, 'A'), "image/png");
    client.postEvent(screenshot);
    ASSERT_TRUE(eventually([&] { return gateway.requests().size() == 4; }, 3s));
    std::string event = gateway.requests().back();
    EXPECT_TRUE(event.starts_with("POST /v1/event HTTP/1.1\r\n"));
    EXPECT_EQ(event.find("Expect:"), std::string::npos);
    EXPECT_TRUE(event.ends_with("\r\n\r\n" + screenshot.httpBody()));
}

TEST_F(HTTPBridgeGatewayClientTests, BaseURLPathQueryAndFragmentAreDropped) {
    HttplibGateway gateway;
    HTTPBridgeGatewayClient client(gateway.url("/api/?tenant=7#top"), std::nullopt, 10);
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    client.postEvent(BridgeEvent::pinViolation("worker-1", "write_file", "old", "new"));
    ASSERT_TRUE(eventually([&] { return gateway.received().size() == 2; }));
    EXPECT_EQ(gateway.received()[0].path, "/v1/toolcall");
    EXPECT_EQ(gateway.received()[1].path, "/v1/event");
}

TEST_F(HTTPBridgeGatewayClientTests, BasesThatCannotBeSentOrResolved) {
    struct Row {
        std::string base;
        std::optional<std::string> token;
        std::string expected;
    } rows[] = {
        {"gateway.example/api", std::nullopt, reason(GatewayDenyReason::noAnswer)},
        {"//127.0.0.1:1/", std::nullopt, reason(GatewayDenyReason::noAnswer)},
        {"localhost:8080", std::nullopt, reason(GatewayDenyReason::noAnswer)},
        {"ftp://127.0.0.1:1/", std::nullopt, reason(GatewayDenyReason::noAnswer)},
        {"http://127.0.0.1:1/", "a\r\nX-Injected: 1", reason(GatewayDenyReason::noAnswer)},
        {"", std::nullopt, reason(GatewayDenyReason::urlInvalid)},
        {"http://gw.example/a b", std::nullopt, reason(GatewayDenyReason::urlInvalid)},
    };
    for (const Row& row : rows) {
        HTTPBridgeGatewayClient client(row.base, row.token, 30);
        auto start = Clock::now();
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), row.expected) << row.base;
        EXPECT_LT(secondsSince(start), 1.0) << row.base;
        client.postEvent(BridgeEvent::pinViolation("w", "t", "a", "b")); // dropped quietly
    }
}

TEST_F(HTTPBridgeGatewayClientTests, DecisionsInARowShareOneConnection) {
    RawGateway gateway(/*answers=*/true);
    HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 10);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_EQ(gateway.requests().size(), 10u);
    EXPECT_EQ(gateway.connections(), 1);
}

TEST_F(HTTPBridgeGatewayClientTests, PostEventReturnsAtOnceAndNeverChangesADecision) {
    RefusingPort down;
    HTTPBridgeGatewayClient unreachable(down.url(), std::nullopt, 10);
    auto event = BridgeEvent::pinViolation("worker-1", "write_file", "old", "new");
    for (int i = 0; i < 50; ++i) {
        auto start = Clock::now();
        unreachable.postEvent(event);
        EXPECT_LT(secondsSince(start), 0.05); // generous: sanitizer builds on a busy machine
    }

    HttplibGateway gateway; // answers every event with 500
    HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 10);
    client.postEvent(event);
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    ASSERT_TRUE(eventually([&] { return gateway.received().size() == 2; }));
    for (const auto& received : gateway.received()) {
        if (received.path != "/v1/event") continue;
        EXPECT_EQ(received.body, event.httpBody());
        EXPECT_EQ(received.contentType, "application/json");
    }
}

TEST_F(HTTPBridgeGatewayClientTests, ConcurrentDecisionsAndEvents) {
    HttplibGateway gateway;
    HTTPBridgeGatewayClient client(gateway.url(), "token", 20);
    std::atomic<int> allowed{0};
    std::vector<std::thread> callers;
    // Four callers at once, but not many more new connections at once: the test server's accept
    // backlog is small, and an overflow costs a one-second SYN retransmission.
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                if (i % 2 == 1) client.postEvent(BridgeEvent::screenshot("worker-1", "AAAA", "image/png"));
                if (client.requestDecision(sampleQuery(std::to_string(t) + "-" + std::to_string(i))).isAllow())
                    ++allowed;
            }
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(allowed.load(), 40);
    EXPECT_TRUE(eventually([&] { return gateway.received().size() == 60; }));
}

TEST_F(HTTPBridgeGatewayClientTests, DestroyingWithRequestsInFlightStopsPromptly) {
    RawGateway gateway(/*answers=*/false);
    auto start = Clock::now();
    {
        HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 30);
        for (int i = 0; i < 3; ++i) client.postEvent(BridgeEvent::screenshot("worker-1", "AAAA", "image/png"));
        ASSERT_TRUE(eventually([&] { return gateway.requests().size() == 3; }));
    }
    EXPECT_LT(secondsSince(start), 3.0);
    EXPECT_TRUE(eventually([&] { return gateway.sawUnansweredRequestClosed(); }));
}

// Loaders that count how often the client asks for libcurl.
std::atomic<int> loadsAsked{0};
const CurlLibrary* countedRealCurl() {
    ++loadsAsked;
    return CurlLibrary::shared();
}
const CurlLibrary* countedMissingCurl() {
    ++loadsAsked;
    return nullptr;
}

TEST_F(HTTPBridgeGatewayClientTests, LibcurlIsLoadedOnlyByTheFirstRequest) {
    EXPECT_EQ(CurlLibrary::load("libsentrova-no-such-curl.so.4"), nullptr);
    EXPECT_NE(CurlLibrary::load("libcurl.so.4"), nullptr);

    HttplibGateway gateway;
    loadsAsked = 0;
    {
        HTTPBridgeGatewayClient idle(gateway.url(), std::nullopt, 10, &countedRealCurl);
    }
    EXPECT_EQ(loadsAsked.load(), 0);

    HTTPBridgeGatewayClient client(gateway.url(), std::nullopt, 10, &countedRealCurl);
    EXPECT_EQ(loadsAsked.load(), 0);
    client.postEvent(BridgeEvent::pinViolation("worker-1", "write_file", "old", "new"));
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_EQ(loadsAsked.load(), 1);
    EXPECT_TRUE(eventually([&] { return gateway.received().size() == 3; }));

    // A base that can never be sent needs no libcurl at all.
    HTTPBridgeGatewayClient unsendable("ftp://127.0.0.1:1/", std::nullopt, 10, &countedRealCurl);
    EXPECT_EQ(verdict(unsendable.requestDecision(sampleQuery())), reason(GatewayDenyReason::noAnswer));
    EXPECT_EQ(loadsAsked.load(), 1);
}

TEST_F(HTTPBridgeGatewayClientTests, WithoutLibcurlEveryDecisionIsDeniedAndEventsAreDropped) {
    HttplibGateway gateway;
    loadsAsked = 0;
    HTTPBridgeGatewayClient client(gateway.url(), "token", 30);
    HTTPBridgeGatewayClient broken(gateway.url(), "token", 30, &countedMissingCurl);
    std::vector<std::thread> callers;
    std::atomic<int> deniedQuickly{0};
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&] {
            broken.postEvent(BridgeEvent::screenshot("worker-1", "AAAA", "image/png"));
            auto start = Clock::now();
            BridgeDecision decision = broken.requestDecision(sampleQuery());
            if (verdict(decision) == reason(GatewayDenyReason::noAnswer) && secondsSince(start) < 1.0) ++deniedQuickly;
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(deniedQuickly.load(), 4);
    EXPECT_EQ(loadsAsked.load(), 1); // a failed load is not retried on every call

    // Nothing reached the gateway from the broken client; a working one still gets through.
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(gateway.received().size(), 1u);
}

} // namespace
} // namespace sentrova
