#include "sentrova-dev-gateway/DevGatewayServer.hpp"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <httplib.h>

namespace sentrova {

namespace {

constexpr const char* kJsonContentType = "application/json";
// Bridges keep one connection open across calls; the Debian build of the HTTP library would
// otherwise close it after five requests.
constexpr std::size_t kKeepAliveMaxCount = 1000;
constexpr time_t kKeepAliveTimeoutSeconds = 30;
// Each pending delay holds a worker, so allow many at once.
constexpr std::size_t kWorkerThreads = 32;
constexpr std::size_t kMaxBodyBytes = 64u * 1024u * 1024u;

// Compares without an early exit, so the time taken says nothing about the token's bytes.
bool sameBytes(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return difference == 0;
}

void answerJson(httplib::Response& response, int status, std::string body) {
    response.status = status;
    response.set_content(std::move(body), kJsonContentType);
}

void answerError(httplib::Response& response, int status, const std::string& message) {
    answerJson(response, status,
               writeJson(Json::object({{"error", Json::string(message)}})).value_or(R"({"error":"request refused"})"));
}

// An event as it goes into the log: the image data replaced by its length, since the
// decoded image is saved as a file of its own.
Json eventForLog(const Json& event) {
    Json::Object members;
    for (const JsonMember& member : event.objectValue()) {
        if (member.key == "base64" && member.value.isString()) {
            members.push_back({"base64Length",
                               Json::integer(static_cast<std::int64_t>(member.value.stringValue().size()))});
        } else {
            members.push_back(member);
        }
    }
    return Json::object(std::move(members));
}

} // namespace

struct DevGatewayServer::Impl {
    DevGatewayPolicy policy;
    std::shared_ptr<DevGatewayAuditLog> auditLog;
    std::optional<std::string> token;
    httplib::Server http;

    std::mutex stateLock;
    std::condition_variable stateChanged;
    bool stopping = false;
    bool running = false;

    Impl(DevGatewayPolicy p, std::shared_ptr<DevGatewayAuditLog> log, std::optional<std::string> t)
        : policy(std::move(p)), auditLog(std::move(log)), token(std::move(t)) {
        http.set_keep_alive_max_count(kKeepAliveMaxCount);
        http.set_keep_alive_timeout(kKeepAliveTimeoutSeconds);
        http.set_payload_max_length(kMaxBodyBytes);
        // Answers go out at once rather than waiting on Nagle for the bridge's next request.
        http.set_tcp_nodelay(true);
        http.new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
        http.Post("/v1/toolcall", [this](const httplib::Request& request, httplib::Response& response) {
            handleToolCall(request, response);
        });
        http.Post("/v1/event", [this](const httplib::Request& request, httplib::Response& response) {
            handleEvent(request, response);
        });
    }

    bool authorised(const httplib::Request& request, httplib::Response& response) {
        if (!token) {
            return true;
        }
        if (sameBytes(request.get_header_value("Authorization"), "Bearer " + *token)) {
            return true;
        }
        auditLog->append({{"kind", Json::string("unauthorized")}, {"path", Json::string(request.path)}});
        answerError(response, 401, "missing or wrong bearer token");
        return false;
    }

    // Parses a request body that must be one JSON object; answers 400 and logs otherwise.
    std::optional<Json> readObjectBody(const httplib::Request& request, httplib::Response& response) {
        std::optional<Json> body = parseJson(request.body);
        if (body && body->isObject()) {
            return body;
        }
        auditLog->append({{"kind", Json::string("badRequest")},
                          {"path", Json::string(request.path)},
                          {"error", Json::string("the body is not a JSON object")}});
        answerError(response, 400, "the body must be a JSON object");
        return std::nullopt;
    }

    // Sleeps for a rule's delay; false when the gateway is stopping meanwhile.
    bool waitUnlessStopping(double seconds) {
        std::unique_lock<std::mutex> guard(stateLock);
        return !stateChanged.wait_for(guard, std::chrono::duration<double>(seconds), [this] { return stopping; });
    }

    void handleToolCall(const httplib::Request& request, httplib::Response& response) {
        if (!authorised(request, response)) {
            return;
        }
        std::optional<Json> body = readObjectBody(request, response);
        if (!body) {
            return;
        }
        const DevGatewayVerdict verdict = policy.decide(DevGatewayQuery::fromBody(*body));
        if (verdict.delaySeconds > 0.0 && !waitUnlessStopping(verdict.delaySeconds)) {
            answerError(response, 503, "the gateway is shutting down");
            return;
        }
        Json::Object record = {{"kind", Json::string("toolcall")},
                               {"query", std::move(*body)},
                               {"decision", Json::string(verdict.allow ? "allow" : "deny")},
                               {"delaySeconds", Json::real(verdict.delaySeconds)}};
        if (!verdict.reason.empty()) {
            record.push_back({"reason", Json::string(verdict.reason)});
        }
        if (verdict.ruleIndex) {
            record.push_back({"rule", Json::integer(static_cast<std::int64_t>(*verdict.ruleIndex))});
        }
        auditLog->append(std::move(record));
        answerJson(response, 200, verdict.responseBody());
    }

    void handleEvent(const httplib::Request& request, httplib::Response& response) {
        if (!authorised(request, response)) {
            return;
        }
        std::optional<Json> body = readObjectBody(request, response);
        if (!body) {
            return;
        }
        Json::Object record = {{"kind", Json::string("event")}, {"event", eventForLog(*body)}};
        const Json* kind = body->find("kind");
        const Json* base64 = body->find("base64");
        if (kind && kind->isString() && kind->stringValue() == "screenshot" && base64 && base64->isString()) {
            const Json* mimeType = body->find("mimeType");
            const std::string type = (mimeType && mimeType->isString()) ? mimeType->stringValue() : "image/png";
            const DevGatewayAuditLog::SavedImage saved = auditLog->saveScreenshot(base64->stringValue(), type);
            if (saved.problem.empty()) {
                record.push_back({"screenshotFile", Json::string(saved.path)});
            } else {
                record.push_back({"screenshotError", Json::string(saved.problem)});
            }
        }
        auditLog->append(std::move(record));
        response.status = 204;
    }
};

DevGatewayServer::DevGatewayServer(DevGatewayPolicy policy, std::shared_ptr<DevGatewayAuditLog> auditLog,
                                   std::optional<std::string> token)
    : impl_(std::make_unique<Impl>(std::move(policy), std::move(auditLog), std::move(token))) {}

DevGatewayServer::~DevGatewayServer() {
    stop();
}

std::optional<int> DevGatewayServer::bind(const std::string& host, int port) {
    if (port == 0) {
        const int bound = impl_->http.bind_to_any_port(host);
        return bound > 0 ? std::optional<int>(bound) : std::nullopt;
    }
    return impl_->http.bind_to_port(host, port) ? std::optional<int>(port) : std::nullopt;
}

void DevGatewayServer::run() {
    {
        const std::lock_guard<std::mutex> guard(impl_->stateLock);
        if (impl_->stopping) {
            return;
        }
        impl_->running = true;
    }
    impl_->http.listen_after_bind();
    const std::lock_guard<std::mutex> guard(impl_->stateLock);
    impl_->running = false;
    impl_->stateChanged.notify_all();
}

void DevGatewayServer::stop() {
    std::unique_lock<std::mutex> guard(impl_->stateLock);
    impl_->stopping = true;
    impl_->stateChanged.notify_all();
    // run() may have announced itself a moment before the listener is up, when a stop of
    // the HTTP server would still be ignored: repeat it until run() has returned.
    while (impl_->running) {
        guard.unlock();
        impl_->http.stop();
        guard.lock();
        impl_->stateChanged.wait_for(guard, std::chrono::milliseconds(50), [this] { return !impl_->running; });
    }
}

} // namespace sentrova
