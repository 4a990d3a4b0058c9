#include "TestGateway.hpp"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <strings.h>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

namespace sentrova::e2e {

std::string RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
    }
    return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
    return std::any_of(headers.begin(), headers.end(),
                       [&](const auto& entry) { return strcasecmp(entry.first.c_str(), name.c_str()) == 0; });
}

struct TestGateway::Server {
    httplib::Server http;
    int port = -1;
    std::thread listener;

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    bool stopping = false;
    GatewayAnswer queryAnswer{200, TestGateway::allowBody(), std::chrono::milliseconds(0)};
    GatewayAnswer eventAnswer{200, "{}", std::chrono::milliseconds(0)};
    std::vector<RecordedRequest> requests;

    void handle(const httplib::Request& request, httplib::Response& response) {
        RecordedRequest recorded{request.method, request.path, {}, request.body};
        for (const auto& [name, value] : request.headers) recorded.headers.emplace(name, value);
        GatewayAnswer answer;
        {
            std::lock_guard lock(mutex);
            requests.push_back(std::move(recorded));
            answer = request.path == "/v1/toolcall" ? queryAnswer
                     : request.path == "/v1/event"  ? eventAnswer
                                                    : GatewayAnswer{404, "", std::chrono::milliseconds(0)};
        }
        changed.notify_all();
        if (answer.delay.count() > 0) {
            // Recorded first, so a test can see the request while the answer is held back.
            std::unique_lock lock(mutex);
            changed.wait_for(lock, answer.delay, [this] { return stopping; });
        }
        response.status = answer.status;
        response.set_content(answer.body, "application/json");
    }

    std::vector<RecordedRequest> withPath(const std::string& path) const {
        std::lock_guard lock(mutex);
        std::vector<RecordedRequest> matching;
        for (const auto& request : requests) {
            if (request.path == path) matching.push_back(request);
        }
        return matching;
    }

    bool waitForCount(const std::string& path, std::size_t count, std::chrono::milliseconds timeout) const {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, timeout, [&] {
            return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(),
                                                          [&](const auto& r) { return r.path == path; })) >= count;
        });
    }
};

TestGateway::TestGateway() : server_(std::make_unique<Server>()) {
    Server& server = *server_;
    auto handler = [&server](const httplib::Request& request, httplib::Response& response) {
        server.handle(request, response);
    };
    server.http.Post(".*", handler);
    server.http.Get(".*", handler);
    server.http.set_tcp_nodelay(true); // no Nagle wait on answers
    server.http.set_keep_alive_max_count(1000);
    server.port = server.http.bind_to_any_port("127.0.0.1");
    // The socket listens from here on; connections wait in the backlog until the loop runs.
    server.listener = std::thread([&server] { server.http.listen_after_bind(); });
}

TestGateway::~TestGateway() {
    {
        std::lock_guard lock(server_->mutex);
        server_->stopping = true;
    }
    server_->changed.notify_all();
    // stop() only reaches a loop that has started.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!server_->http.is_running() && server_->port > 0 && std::chrono::steady_clock::now() < giveUp) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server_->http.stop();
    server_->listener.join();
}

int TestGateway::port() const { return server_->port; }
std::string TestGateway::origin() const { return "http://127.0.0.1:" + std::to_string(server_->port); }

void TestGateway::answerQueries(GatewayAnswer answer) {
    std::lock_guard lock(server_->mutex);
    server_->queryAnswer = std::move(answer);
}

void TestGateway::answerEvents(GatewayAnswer answer) {
    std::lock_guard lock(server_->mutex);
    server_->eventAnswer = std::move(answer);
}

std::string TestGateway::allowBody() { return R"({"decision":"allow"})"; }

std::string TestGateway::denyBody(const std::string& reason) {
    std::string escaped;
    for (char c : reason) {
        if (c == '"' || c == '\\') escaped.push_back('\\');
        escaped.push_back(c);
    }
    return R"({"decision":"deny","reason":")" + escaped + "\"}";
}

std::vector<RecordedRequest> TestGateway::queries() const { return server_->withPath("/v1/toolcall"); }
std::vector<RecordedRequest> TestGateway::events() const { return server_->withPath("/v1/event"); }

std::vector<RecordedRequest> TestGateway::requests() const {
    std::lock_guard lock(server_->mutex);
    return server_->requests;
}

bool TestGateway::waitForQueries(std::size_t count, std::chrono::milliseconds timeout) const {
    return server_->waitForCount("/v1/toolcall", count, timeout);
}

bool TestGateway::waitForEvents(std::size_t count, std::chrono::milliseconds timeout) const {
    return server_->waitForCount("/v1/event", count, timeout);
}

int closedLocalPort() {
    // Bound but never listening, and kept for the whole test run, so no one else takes the port
    // and every connection attempt is refused.
    static const int port = [] {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 9;
        socklen_t length = sizeof address;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        return static_cast<int>(ntohs(address.sin_port));
    }();
    return port;
}

} // namespace sentrova::e2e
