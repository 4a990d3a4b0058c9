// The gateway client against the project's dev gateway (a working gateway) and one raw peer for
// what a working gateway never does: odd answers, no answer, and the bytes and connections seen.
#include <gtest/gtest.h>

#include <atomic>
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
const std::map<std::string, std::string_view> kDenies = {{"noAnswer", GatewayDenyReason::noAnswer},
    {"unreadableVerdict", GatewayDenyReason::unreadableVerdict}, {"policyDefault", GatewayDenyReason::policyDefault},
    {"urlInvalid", GatewayDenyReason::urlInvalid}, {"timedOut", GatewayDenyReason::timedOut}};

// "allow", or the deny reason (named when it is one of the client's own): readable in failures.
std::string verdict(const BridgeDecision& decision) {
    for (const auto& [name, text] : kDenies) if (!decision.isAllow() && decision.reason() == text) return name;
    return decision.isAllow() ? "allow" : decision.reason();
}

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
const BridgeEvent kPin = BridgeEvent::pinViolation("worker-1", "write_file", "old", "new");
const BridgeEvent kShot = BridgeEvent::screenshot("worker-1", "AAAA", "image/png");

// A bare HTTP/1.1 peer on 127.0.0.1: answers each whole request with a set reply (nothing while it
// is empty); records requests, connections, and whether a request left unanswered was hung up on.
class RawGateway {
public:
    explicit RawGateway(std::string reply = {}) : reply_(std::move(reply)), listener_(loopbackSocket(port_)) {
        thread_ = std::thread([this] { serve(); });
    }
    ~RawGateway() { stopping_ = true, thread_.join(), ::close(listener_); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    void answer(std::string reply) { std::lock_guard<std::mutex> hold(lock_); reply_ = std::move(reply); }
    int connections() { std::lock_guard<std::mutex> hold(lock_); return connections_; }
    std::vector<std::string> requests() { std::lock_guard<std::mutex> hold(lock_); return requests_; }
    bool sawOpenRequestClosed() { std::lock_guard<std::mutex> hold(lock_); return openRequestClosed_; }

private:
    struct Connection { int fd; std::string buffer; bool unanswered = false; };
    void serve() {
        std::vector<Connection> open;
        while (!stopping_) {
            std::vector<pollfd> watched{{listener_, POLLIN, 0}};
            for (auto& connection : open) watched.push_back({connection.fd, POLLIN, 0});
            ::poll(watched.data(), watched.size(), 20);
            std::lock_guard<std::mutex> hold(lock_);
            if (watched[0].revents & POLLIN) open.push_back({::accept(listener_, nullptr, nullptr), {}}), ++connections_;
            for (std::size_t i = 1; i < watched.size(); ++i) {
                if (!(watched[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                Connection& connection = open[i - 1];
                char chunk[65536];
                const ssize_t got = ::recv(connection.fd, chunk, sizeof chunk, 0);
                if (got <= 0) openRequestClosed_ |= connection.unanswered, ::close(connection.fd), connection.fd = -1;
                else connection.buffer.append(chunk, static_cast<std::size_t>(got));
                for (std::size_t size; connection.fd >= 0 && (size = wholeMessage(connection.buffer)) > 0;) {
                    requests_.push_back(connection.buffer.substr(0, size));
                    connection.buffer.erase(0, size);
                    connection.unanswered = reply_.empty();
                    ::send(connection.fd, reply_.data(), reply_.size(), MSG_NOSIGNAL);
                }
            }
            std::erase_if(open, [](const Connection& connection) { return connection.fd < 0; });
        }
        for (auto& connection : open) ::close(connection.fd);
    }

    std::string reply_;
    int port_ = 0, listener_, connections_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex lock_;
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
    client.postEvent(kPin);
    ASSERT_TRUE(eventually([&] { return gateway.auditRecords().size() == 3; }));
    const auto records = gateway.auditRecords();
    EXPECT_EQ(writeJson(*records[0].find("query")), sampleQuery().httpBody());
    EXPECT_EQ(writeJson(*records[2].find("event")), kPin.httpBody());
    HTTPBridgeGatewayClient wrongToken(at(gateway.url()), "s3cret", 10);
    EXPECT_EQ(verdict(wrongToken.requestDecision(sampleQuery())), "noAnswer");
}

TEST_F(HTTPBridgeGatewayClientTests, HeadersOnTheWireAndOneConnectionForManyDecisions) {
    RawGateway gateway("HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n{\"decision\":\"allow\"}");
    auto requestWithToken = [&](std::optional<std::string> token) {
        HTTPBridgeGatewayClient client(at(gateway.url()), token, 10);
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
    HTTPBridgeGatewayClient client(at(gateway.url()), std::nullopt, 10);
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
    for (double deadline : {0.0, -1.0, -double(INFINITY), std::nan(""), double(INFINITY), 1e300}) {
        HTTPBridgeGatewayClient client(at(gateway.url()), LoopbackGateway::token, deadline);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery("slow"))), deadline > 1 ? "allow" : "timedOut") << deadline;
    }
    // A silent gateway times out at the deadline, and the request is given up.
    RawGateway silent;
    HTTPBridgeGatewayClient client(at(silent.url()), std::nullopt, 0.5);
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "timedOut");
    EXPECT_TRUE(eventually([&] { return silent.sawOpenRequestClosed(); }));

    // A decision withdrawn by its caller is given up the same way, and its handler never runs.
    RawGateway silentToo;
    HTTPBridgeGatewayClient patient(at(silentToo.url()), std::nullopt, 60);
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
        HTTPBridgeGatewayClient busy(at(stuck.url()), std::nullopt, 30);
        for (int i = 0; i < 3; ++i) busy.postEvent(kShot);
        ASSERT_TRUE(eventually([&] { return stuck.requests().size() == 3; }));
    }
    EXPECT_LT(secondsSince(start), 3.0);
    EXPECT_TRUE(eventually([&] { return stuck.sawOpenRequestClosed(); }));
}

TEST_F(HTTPBridgeGatewayClientTests, EveryAnswerAndEveryUnreachableBaseMapsToItsDecision) {
    RawGateway gateway;
    for (const auto& row : caseRows("gateway-answers.txt")) {
        gateway.answer(row[0]);
        // A client of its own per answer: a body sent with 204 may be left on a reused connection.
        HTTPBridgeGatewayClient client(at(gateway.url()), std::nullopt, 10);
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), row[1]) << row[0];
    }
    const int down = [] { RawGateway gone; return std::stoi(gone.url().substr(17)); }();
    for (auto row : caseRows("gateway-bases.txt")) {
        if (row[0].find("{DOWN}") != std::string::npos) row[0].replace(row[0].find("{DOWN}"), 6, std::to_string(down));
        HTTPBridgeGatewayClient client(at(row[0]), row[1] == "-" ? std::nullopt : std::optional(row[1]), 30);
        const auto start = Clock::now();
        EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), row[2]) << row[0];
        EXPECT_LT(secondsSince(start), 5.0) << row[0]; // at once, not at the deadline
        client.postEvent(kPin); // dropped quietly, at once
    }
}

// Loaders that count how often the client asks for libcurl.
std::atomic<int> loadsAsked{0};
const CurlLibrary* countedRealCurl() { return ++loadsAsked, CurlLibrary::shared(); }
const CurlLibrary* countedMissingCurl() { return ++loadsAsked, nullptr; }

// Callers on several threads at once, each posting events and asking for decisions.
int allowedFromThreads(HTTPBridgeGatewayClient& client, int threads, int calls) {
    std::atomic<int> allowed{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < calls; ++i) client.postEvent(kShot), allowed += client.requestDecision(sampleQuery()).isAllow();
        });
    }
    for (auto& caller : callers) caller.join();
    return allowed;
}

TEST_F(HTTPBridgeGatewayClientTests, LibcurlIsLoadedOnceByTheFirstRequestAndItsLackDeniesAll) {
    EXPECT_EQ(CurlLibrary::load("libsentrova-no-such-curl.so.4"), nullptr);
    LoopbackGateway gateway(kPolicy);
    { HTTPBridgeGatewayClient idle(at(gateway.url()), std::nullopt, 10, &countedRealCurl); }
    HTTPBridgeGatewayClient client(at(gateway.url()), LoopbackGateway::token, 20, &countedRealCurl);
    HTTPBridgeGatewayClient unsendable(at("ftp://127.0.0.1:1/"), std::nullopt, 10, &countedRealCurl);
    EXPECT_EQ(verdict(unsendable.requestDecision(sampleQuery())), "noAnswer");
    EXPECT_EQ(loadsAsked.load(), 0); // neither an idle client nor a base that cannot be sent loads it
    EXPECT_EQ(allowedFromThreads(client, 4, 10), 40);
    EXPECT_EQ(loadsAsked.load(), 1);
    EXPECT_TRUE(eventually([&] { return gateway.auditRecords().size() == 80; }));

    loadsAsked = 0;
    HTTPBridgeGatewayClient broken(at(gateway.url()), LoopbackGateway::token, 30, &countedMissingCurl);
    EXPECT_EQ(allowedFromThreads(broken, 4, 1), 0);
    EXPECT_EQ(loadsAsked.load(), 1); // a failed load is not retried on every call
    EXPECT_EQ(verdict(client.requestDecision(sampleQuery())), "allow");
    ASSERT_TRUE(eventually([&] { return gateway.auditRecords().size() == 81; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(gateway.auditRecords().size(), 81u); // nothing came from the broken client
}

} // namespace
} // namespace sentrova
