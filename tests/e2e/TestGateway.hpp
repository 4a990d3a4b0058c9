#pragma once

// A policy gateway for tests: real HTTP on 127.0.0.1, an ephemeral port, every request recorded
// with its headers, and answers whose status, body and delay the test chooses.

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sentrova::e2e {

struct RecordedRequest {
    std::string method;
    std::string path;
    std::multimap<std::string, std::string> headers; // names as the client sent them
    std::string body;

    // The first value of a header, compared case-insensitively by name; "" when absent.
    std::string header(const std::string& name) const;
    bool hasHeader(const std::string& name) const;
};

struct GatewayAnswer {
    int status = 200;
    std::string body;
    std::chrono::milliseconds delay{0};
};

class TestGateway {
public:
    TestGateway(); // listening once constructed
    ~TestGateway();
    TestGateway(const TestGateway&) = delete;
    TestGateway& operator=(const TestGateway&) = delete;

    int port() const;
    std::string origin() const; // "http://127.0.0.1:<port>"

    // Answers to POST /v1/toolcall and POST /v1/event (default: allow, and 200 with "{}").
    void answerQueries(GatewayAnswer answer);
    void answerEvents(GatewayAnswer answer);
    static std::string allowBody();
    static std::string denyBody(const std::string& reason);

    std::vector<RecordedRequest> queries() const; // POST /v1/toolcall, in arrival order
    std::vector<RecordedRequest> events() const;  // POST /v1/event
    std::vector<RecordedRequest> requests() const; // everything, any path
    bool waitForQueries(std::size_t count, std::chrono::milliseconds timeout) const;
    bool waitForEvents(std::size_t count, std::chrono::milliseconds timeout) const;

private:
    struct Server;
    std::unique_ptr<Server> server_;
};

// A 127.0.0.1 port with nothing listening on it (a gateway that is down).
int closedLocalPort();

} // namespace sentrova::e2e
