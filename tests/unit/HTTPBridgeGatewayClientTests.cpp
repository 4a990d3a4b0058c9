// The gateway client against the project's dev gateway (a working gateway) and one raw peer for
// what a working gateway never does: odd answers, no answer, and the bytes and connections seen.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cmath>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MCPBridgeCore/CurlLibrary.hpp"
#include "MCPBridgeCore/HTTPBridgeGatewayClient.hpp"
#include "TestSupport.hpp"

namespace sentrova {
namespace {

using namespace test;

// A client's endpoint as the command line gives it; an unparsable base gives none.
GatewayEndpoint at(const std::string& base) { return GatewayEndpoint::parse(base).value_or(GatewayEndpoint{}); }

constexpr const char* kPolicy = R"({"rules":[{"tool":"slow","decision":"allow","delaySeconds":0.3},
    {"tool":"rm","decision":"deny","reason":"no writes"},{"decision":"allow"}]})";
const std::string kAllowReply =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 20\r\n\r\n{\"decision\":\"allow\"}";

// "allow", or the deny reason: readable in failure messages.
std::string verdict(const BridgeDecision& decision) { return decision.isAllow() ? "allow" : decision.reason(); }
std::string reason(std::string_view text) { return std::string(text); }

BridgeToolCallQuery sampleQuery(std::string tool = "write_file") {
    BridgeToolCallQuery query;
    query.workerName = "worker-1";
    query.serverCommand = "npx -y server";
    query.tool = std::move(tool);
    query.argumentsJSON = R"({"path":"/tmp/a"})";
    query.risk = BridgeRisk::critical;
    query.requestID = "REQ-1";
    return query;
}

// A bare HTTP/1.1 peer on a loopback socket: answers each whole request with a set reply, or with
// nothing while the reply is empty; records requests, connections, and open requests hung up on.
class RawGateway {
public:
    explicit RawGateway(std::string reply = {}) : reply_(std::move(reply)), listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        ::listen(listener_, 16);
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~RawGateway() {
        stopping_ = true;
        thread_.join();
        ::close(listener_);
    }
    void answer(std::string reply) { std::lock_guard<std::mutex> hold(lock_); reply_ = std::move(reply); }
    int connections() { std::lock_guard<std::mutex> hold(lock_); return connections_; }
    std::vector<std::string> requests() { std::lock_guard<std::mutex> hold(lock_); return requests_; }
    bool sawOpenRequestClosed() { std::lock_guard<std::mutex> hold(lock_); return openRequestClosed_; }
    std::string url;

private:
    struct Connection {
        int fd;
        std::string buffer;
        bool open = false; // a request waits for an answer that never comes
    };
    // Takes one whole request (head and Content-Length body) off the front of the buffer.
    static bool takeRequest(std::string& buffer, std::string& request) {
        const auto headEnd = buffer.find("\r\n\r\n");
        if (headEnd == std::string::npos) return false;
        std::string head = buffer.substr(0, headEnd);
        for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const auto field = head.find("\r\ncontent-length:");
        const std::size_t total = headEnd + 4 + (field == std::string::npos ? 0 : std::stoul(head.substr(field + 17)));
        if (buffer.size() < total) return false;
        request = buffer.substr(0, total);
        buffer.erase(0, total);
        return true;
    }
    void serve() {
        std::vector<Connection> connections;
        while (!stopping_) {
            std::vector<pollfd> watched{{listener_, POLLIN, 0}};
            for (auto& connection : connections) watched.push_back({connection.fd, POLLIN, 0});
            ::poll(watched.data(), watched.size(), 20);
            std::lock_guard<std::mutex> hold(lock_);
            if (watched[0].revents & POLLIN) connections.push_back({::accept(listener_, nullptr, nullptr), {}}), ++connections_;
            for (std::size_t i = 1; i < watched.size(); ++i) {
                if (!(watched[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                Connection& connection = connections[i - 1];
                char chunk[65536];
                const ssize_t got = ::recv(connection.fd, chunk, sizeof chunk, 0);
                if (got <= 0) {
                    openRequestClosed_ = openRequestClosed_ || connection.open;
                    ::close(connection.fd);
                    connection.fd = -1;
                    continue;
                }
                connection.buffer.append(chunk, static_cast<std::size_t>(got));
                for (std::string request; takeRequest(connection.buffer, request);) {
                    requests_.push_back(request);
                    connection.open = reply_.empty();
                    ::send(connection.fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
                }
            }
            std::erase_if(connections, [](const Connection& connection) { return connection.fd < 0; });
        }
        for (auto& connection : connections) ::close(connection.fd);
    }

    std::string reply_;
    int listener_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex lock_;
    int connections_ = 0;
    std::vector<std::string> requests_;
    bool openRequestClosed_ = false;
};

class HTTPBridgeGatewayClientTests : public testing::Test {
protected:
    // libcurl honours the proxy variables; the loopback gateway must be reached directly.
    void SetUp() override {
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            ::unsetenv(name);
    }
};

TEST_F(HTTPBridgeGatewayClientTests, AWorkingGatewayGetsTheQueryAndItsVerdictIsTaken) {
    LoopbackGateway gateway(kPolicy);
    // The base's path, query and fragment are dropped; the token and JSON type let the query in.
    HTTPBridgeGatewayClient client(at(gateway.url() + "/api/?tenant=7#top"), LoopbackGateway::token, 10);
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery("rm"))), "no writes");
    client.postEvent(BridgeEvent::pinViolation("worker-1", "write_file", "old", "new"));
    ASSERT_TRUE(eventually([&] { return gateway.auditRecords().size() == 3; }));
    const auto records = gateway.auditRecords();
    EXPECT_EQ(writeJson(*records[0].find("query")), sampleQuery().httpBody());
    EXPECT_EQ(writeJson(*records[2].find("event")),
              BridgeEvent::pinViolation("worker-1", "write_file", "old", "new").httpBody());
    HTTPBridgeGatewayClient wrongToken(at(gateway.url()), "s3cret", 10);
    EXPECT_EQ(verdict(wrongToken.requestDecision(sampleQuery())), reason(GatewayDenyReason::noAnswer));
}

TEST_F(HTTPBridgeGatewayClientTests, EveryAnswerMapsToItsDecision) {
    const std::map<std::string, std::string_view> named = {{"noAnswer", GatewayDenyReason::noAnswer},
        {"unreadableVerdict", GatewayDenyReason::unreadableVerdict}, {"policyDefault", GatewayDenyReason::policyDefault}};
    RawGateway gateway;
    for (const auto& row : caseRows("gateway-answers.txt")) {
        gateway.answer(row[0]);
        // A client of its own per answer: a body sent with 204 may be left on a reused connection.
        HTTPBridgeGatewayClient client(at(gateway.url), std::nullopt, 10);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), named.contains(row[1]) ? reason(named.at(row[1])) : row[1])
            << row[0];
    }
}

TEST_F(HTTPBridgeGatewayClientTests, HeadersOnTheWireAndOneConnectionForManyDecisions) {
    RawGateway gateway(kAllowReply);
    auto requestWithToken = [&](std::optional<std::string> token) {
        HTTPBridgeGatewayClient client(at(gateway.url), token, 10);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
        return gateway.requests().back();
    };
    const std::string plain = requestWithToken(std::nullopt);
    EXPECT_TRUE(plain.starts_with("POST /v1/toolcall HTTP/1.1\r\n")) << plain;
    EXPECT_NE(plain.find("\r\nContent-Type: application/json\r\n"), std::string::npos) << plain;
    EXPECT_EQ(plain.find("Authorization"), std::string::npos) << plain;
    EXPECT_TRUE(plain.ends_with("\r\n\r\n" + sampleQuery().httpBody())) << plain;
    EXPECT_NE(requestWithToken("").find("\r\nAuthorization: Bearer \r\n"), std::string::npos);

    // A large event (a screenshot) goes out whole at once, without waiting for "100 Continue";
    // decisions in a row share the one connection.
    HTTPBridgeGatewayClient client(at(gateway.url), std::nullopt, 10);
    const BridgeEvent screenshot = BridgeEvent::screenshot("worker-1", std::string(2'000'000, 'A'), "image/png");
    client.postEvent(screenshot);
    ASSERT_TRUE(eventually([&] { return gateway.requests().size() == 3; }));
    const std::string event = gateway.requests().back();
    EXPECT_TRUE(event.starts_with("POST /v1/event HTTP/1.1\r\n"));
    EXPECT_EQ(event.find("Expect:"), std::string::npos);
    EXPECT_TRUE(event.ends_with("\r\n\r\n" + screenshot.httpBody()));
    const int connections = gateway.connections();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_LE(gateway.connections(), connections + 1);
}

TEST_F(HTTPBridgeGatewayClientTests, DeadlinesSilenceAndWithdrawnDecisions) {
    LoopbackGateway gateway(kPolicy); // "slow" is answered after 0.3 s
    for (double deadline : {0.0, -1.0, -double(INFINITY), std::nan("")}) {
        HTTPBridgeGatewayClient client(at(gateway.url()), LoopbackGateway::token, deadline);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery("slow"))), reason(GatewayDenyReason::timedOut)) << deadline;
    }
    for (double deadline : {double(INFINITY), 1e300}) {
        HTTPBridgeGatewayClient client(at(gateway.url()), LoopbackGateway::token, deadline);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery("slow"))), "allow") << deadline;
    }
    // A silent gateway times out at the deadline, and the request is given up.
    RawGateway silent;
    HTTPBridgeGatewayClient client(at(silent.url), std::nullopt, 0.5);
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), reason(GatewayDenyReason::timedOut));
    EXPECT_TRUE(eventually([&] { return silent.sawOpenRequestClosed(); }));

    // A decision withdrawn by its caller is given up the same way, and its handler never runs.
    RawGateway silentToo;
    HTTPBridgeGatewayClient patient(at(silentToo.url), std::nullopt, 60);
    std::atomic<bool> handled{false};
    auto handle = patient.startDecision(sampleQuery(), [&](BridgeDecision) { handled = true; });
    ASSERT_TRUE(eventually([&] { return silentToo.requests().size() == 1; }));
    handle->cancel();
    EXPECT_TRUE(eventually([&] { return silentToo.sawOpenRequestClosed(); }));
    EXPECT_FALSE(handled);

    // Destroyed with events in flight, the client stops promptly and hangs up.
    RawGateway stuck;
    const auto start = Clock::now();
    {
        HTTPBridgeGatewayClient busy(at(stuck.url), std::nullopt, 30);
        for (int i = 0; i < 3; ++i) busy.postEvent(BridgeEvent::screenshot("worker-1", "AAAA", "image/png"));
        ASSERT_TRUE(eventually([&] { return stuck.requests().size() == 3; }));
    }
    EXPECT_LT(secondsSince(start), 3.0);
    EXPECT_TRUE(eventually([&] { return stuck.sawOpenRequestClosed(); }));
}

TEST_F(HTTPBridgeGatewayClientTests, UnreachableOrUnsendableBasesDenyAtOnce) {
    const int closedPort = [] { RawGateway gone; return std::stoi(gone.url.substr(17)); }();
    const std::string down = "http://127.0.0.1:" + std::to_string(closedPort);
    const std::vector<std::tuple<std::string, std::optional<std::string>, std::string_view>> rows = {
        {down, "token", GatewayDenyReason::noAnswer},
        {"gateway.example/api", std::nullopt, GatewayDenyReason::noAnswer},
        {"//127.0.0.1:1/", std::nullopt, GatewayDenyReason::noAnswer},
        {"localhost:8080", std::nullopt, GatewayDenyReason::noAnswer},
        {"ftp://127.0.0.1:1/", std::nullopt, GatewayDenyReason::noAnswer},
        {"http://127.0.0.1:1/", "a\r\nX-Injected: 1", GatewayDenyReason::noAnswer},
        {"", std::nullopt, GatewayDenyReason::urlInvalid},
        {"http://gw.example/a b", std::nullopt, GatewayDenyReason::urlInvalid},
    };
    for (const auto& [base, token, expected] : rows) {
        HTTPBridgeGatewayClient client(at(base), token, 30);
        const auto start = Clock::now();
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), reason(expected)) << base;
        EXPECT_LT(secondsSince(start), 5.0) << base;
        client.postEvent(BridgeEvent::pinViolation("w", "t", "a", "b")); // dropped quietly, at once
    }
}

TEST_F(HTTPBridgeGatewayClientTests, ConcurrentDecisionsAndEvents) {
    LoopbackGateway gateway(kPolicy);
    HTTPBridgeGatewayClient client(at(gateway.url()), LoopbackGateway::token, 20);
    std::atomic<int> allowed{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < 10; ++i) {
                if (i % 2 == 1) client.postEvent(BridgeEvent::screenshot("worker-1", "AAAA", "image/png"));
                allowed += client.requestDecision(sampleQuery()).isAllow() ? 1 : 0;
            }
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(allowed.load(), 40);
    EXPECT_TRUE(eventually([&] { return gateway.auditRecords().size() == 60; }));
}

// Loaders that count how often the client asks for libcurl.
std::atomic<int> loadsAsked{0};
const CurlLibrary* countedRealCurl() { return ++loadsAsked, CurlLibrary::shared(); }
const CurlLibrary* countedMissingCurl() { return ++loadsAsked, nullptr; }

TEST_F(HTTPBridgeGatewayClientTests, LibcurlIsLoadedByTheFirstRequestOnlyAndItsLackDeniesAll) {
    EXPECT_EQ(CurlLibrary::load("libsentrova-no-such-curl.so.4"), nullptr);
    LoopbackGateway gateway(kPolicy);
    loadsAsked = 0;
    { HTTPBridgeGatewayClient idle(at(gateway.url()), std::nullopt, 10, &countedRealCurl); }
    HTTPBridgeGatewayClient client(at(gateway.url()), LoopbackGateway::token, 10, &countedRealCurl);
    HTTPBridgeGatewayClient unsendable(at("ftp://127.0.0.1:1/"), std::nullopt, 10, &countedRealCurl);
    EXPECT_EQ(verdict(unsendable.requestDecision(sampleQuery())), reason(GatewayDenyReason::noAnswer));
    EXPECT_EQ(loadsAsked.load(), 0); // neither an idle client nor a base that cannot be sent loads it
    client.postEvent(BridgeEvent::pinViolation("worker-1", "write_file", "old", "new"));
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    EXPECT_EQ(loadsAsked.load(), 1);
    ASSERT_TRUE(eventually([&] { return gateway.auditRecords().size() == 3; }));

    loadsAsked = 0;
    HTTPBridgeGatewayClient broken(at(gateway.url()), LoopbackGateway::token, 30, &countedMissingCurl);
    std::vector<std::thread> callers;
    std::atomic<int> denied{0};
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&] {
            broken.postEvent(BridgeEvent::screenshot("worker-1", "AAAA", "image/png"));
            denied += verdict(broken.requestDecision(sampleQuery())) == reason(GatewayDenyReason::noAnswer) ? 1 : 0;
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(denied.load(), 4);
    EXPECT_EQ(loadsAsked.load(), 1); // a failed load is not retried on every call
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    ASSERT_TRUE(eventually([&] { return gateway.auditRecords().size() == 4; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(gateway.auditRecords().size(), 4u); // nothing came from the broken client
}

} // namespace
} // namespace sentrova
