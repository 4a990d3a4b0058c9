#include "sentrova-dev-gateway/DevGatewayServer.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <vector>

#include <sys/socket.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

namespace sentrova {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::string_view kJsonType = "application/json";
constexpr std::string_view kAuditLogDeny = "the gateway cannot write its audit log; denying (fail-closed)";
constexpr std::string_view kPageCSP = "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
                                      "img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

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

bool sameTextIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// "Bearer TOKEN", the scheme in any letter case.
bool carriesToken(std::string_view authorization, std::string_view token) {
    constexpr std::string_view scheme = "bearer";
    if (authorization.size() <= scheme.size() || !sameTextIgnoringCase(authorization.substr(0, scheme.size()), scheme) ||
        (authorization[scheme.size()] != ' ' && authorization[scheme.size()] != '\t')) {
        return false;
    }
    return sameBytes(trimmed(authorization.substr(scheme.size())), token);
}

std::string jsonText(Json value, std::string_view fallback) {
    return writeJson(value).value_or(std::string(fallback));
}

std::string errorBody(std::string_view message) {
    return jsonText(Json::object({{"error", Json::string(std::string(message))}}), R"({"error":"request refused"})");
}

// An event as it goes into the log: the image data replaced by its length, since the
// decoded image is saved as a file of its own.
Json eventForLog(const Json& event) {
    Json::Object members;
    for (const JsonMemberView member : event.objectValue()) {
        if (member.key == "base64" && member.value.isString()) {
            members.push_back({"base64Length",
                               Json::integer(static_cast<std::int64_t>(member.value.stringValue().size()))});
        } else {
            members.push_back({std::string(member.key), member.value});
        }
    }
    return Json::object(std::move(members));
}

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

class Session;

// A call waiting for a person, as the page lists it.
struct PendingAsk {
    std::weak_ptr<Session> session;
    Json summary;
};

} // namespace

struct DevGatewayServer::Impl {
    // Declared first so that it outlives the sessions that the event loop destroys last.
    std::atomic<std::size_t> connections{0};

    DevGatewayPolicy policy;
    std::shared_ptr<DevGatewayAuditLog> auditLog;
    const std::string token;
    std::shared_ptr<DevGatewayPinStore> pinStore;
    const DevGatewayLimits limits;
    std::vector<std::string> ownHosts; // "127.0.0.1:8787", "localhost:8787"

    // Only touched on the event loop's thread.
    std::map<std::uint64_t, PendingAsk> asks;
    std::uint64_t nextAskID = 1;
    std::uint64_t version = 1;
    std::vector<std::weak_ptr<Session>> pollers;

    asio::thread_pool workers{2}; // parsing big bodies and saving images, off the event loop
    asio::io_context loop{1};
    tcp::acceptor acceptor{loop};
    asio::steady_timer acceptRetry{loop};

    Impl(DevGatewayPolicy p, std::shared_ptr<DevGatewayAuditLog> log, std::string t,
         std::shared_ptr<DevGatewayPinStore> pins, DevGatewayLimits l)
        : policy(std::move(p)), auditLog(std::move(log)), token(std::move(t)), pinStore(std::move(pins)), limits(l) {}

    ~Impl() {
        workers.join();
    }

    void accept();
    bool ownHost(std::string_view host) const {
        return std::any_of(ownHosts.begin(), ownHosts.end(),
                           [&](const std::string& own) { return sameTextIgnoringCase(host, own); });
    }
    bool ownOrigin(std::string_view origin) const {
        constexpr std::string_view scheme = "http://";
        return origin.size() > scheme.size() && sameTextIgnoringCase(origin.substr(0, scheme.size()), scheme) &&
               ownHost(origin.substr(scheme.size()));
    }

    Json pendingList() const {
        Json::Array calls;
        for (const auto& [id, ask] : asks) {
            calls.push_back(ask.summary);
        }
        return Json::object({{"version", Json::integer(static_cast<std::int64_t>(version))},
                             {"pending", Json::array(std::move(calls))}});
    }
    void pendingChanged();
    void logRefusal(std::string_view path, int status, std::string_view problem) {
        (void)auditLog->append({{"kind", Json::string("refused")},
                                {"path", Json::string(std::string(path.substr(0, 200)))},
                                {"status", Json::integer(status)},
                                {"error", Json::string(std::string(problem))}});
    }
};

namespace {

using Gateway = DevGatewayServer::Impl;

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(tcp::socket socket, Gateway& gateway) : stream_(std::move(socket)), gateway_(gateway), timer_(gateway.loop) {
        ++gateway_.connections;
    }
    ~Session() { --gateway_.connections; }

    void start() { readHeader(); }

    // The end of a waiting call: from its timer, from a person on the page, or at once.
    void finishCall(bool allow, std::string reason, std::string_view answeredBy, const std::string& pageReason = {});
    // Answers a waiting GET /v1/pending with the current list.
    void answerPoll() {
        if (waiting_ != Waiting::poll) return;
        endWait();
        respond(200, jsonText(gateway_.pendingList(), R"({"pending":[]})"));
    }

private:
    enum class Waiting { none, call, poll };

    void readHeader() {
        parser_.emplace();
        parser_->header_limit(static_cast<std::uint32_t>(gateway_.limits.maxHeaderBytes));
        // The body's limit is set once the headers passed their checks, so that a request with
        // a huge Content-Length and no token is refused as unauthorised.
        parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
        stream_.expires_after(std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(gateway_.limits.idleSeconds)));
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = shared_from_this()](beast::error_code error, std::size_t) {
                                    self->onHeader(error);
                                });
    }

    void onHeader(beast::error_code error) {
        if (error == http::error::header_limit) {
            return refuse(431, "the request headers are too large");
        }
        if (error) {
            return close(); // idle, too slow, closed, or not HTTP
        }
        const Request& request = parser_->get();
        target_ = std::string(request.target());
        path_ = target_.substr(0, target_.find('?'));
        // Host first: a page that reached us through a rebound DNS name learns nothing more.
        if (!gateway_.ownHost(request[http::field::host])) {
            return refuse(421, "the Host header must name this gateway's own address");
        }
        if (request.find(http::field::origin) != request.end() &&
            !gateway_.ownOrigin(request[http::field::origin])) {
            return refuse(403, "requests from other web pages are refused");
        }
        const bool api = path_.rfind("/v1/", 0) == 0;
        if (api && !carriesToken(request[http::field::authorization], gateway_.token)) {
            return refuse(401, "missing or wrong bearer token");
        }
        const bool post = request.method() == http::verb::post;
        if (post) {
            const std::string_view type = request[http::field::content_type];
            if (!api || !sameTextIgnoringCase(trimmed(type.substr(0, type.find(';'))), kJsonType)) {
                return refuse(415, "request bodies must be application/json");
            }
            const std::string_view encoding = trimmed(request[http::field::content_encoding]);
            if (!encoding.empty() && !sameTextIgnoringCase(encoding, "identity")) {
                return refuse(415, "compressed request bodies are not accepted");
            }
            if (parser_->content_length() && *parser_->content_length() > gateway_.limits.maxBodyBytes) {
                return refuse(413, "the body is larger than 64 MiB");
            }
        } else if (!parser_->is_done()) {
            return refuse(400, "only POST requests carry a body");
        }
        parser_->body_limit(gateway_.limits.maxBodyBytes);
        if (sameTextIgnoringCase(trimmed(request[http::field::expect]), "100-continue") && !parser_->is_done()) {
            return asio::async_write(stream_, asio::buffer(kContinue.data(), kContinue.size()),
                                     [self = shared_from_this()](beast::error_code e, std::size_t) {
                                         if (e) return self->close();
                                         self->readBody();
                                     });
        }
        readBody();
    }

    void readBody() {
        http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error == http::error::body_limit) {
                return self->refuse(413, "the body is larger than 64 MiB");
            }
            if (error) {
                return self->close();
            }
            self->stream_.expires_never();
            self->route();
        });
    }

    void route() {
        const http::verb method = parser_->get().method();
        const bool get = method == http::verb::get;
        if (path_ == "/" || path_ == "/index.html" || path_ == "/page.js" || path_ == "/page.css") {
            if (!get) return respond(405, errorBody("method not allowed"));
            return servePage();
        }
        if (path_ == "/v1/pending") {
            return get ? servePending() : respond(405, errorBody("use GET"));
        }
        if (path_ != "/v1/toolcall" && path_ != "/v1/event" && path_ != "/v1/answer") {
            return respond(404, errorBody("not found"));
        }
        if (method != http::verb::post) {
            return respond(405, errorBody("use POST"));
        }
        // Parsing a body of many megabytes takes a while: do it beside the event loop.
        std::string body = std::move(parser_->get().body());
        asio::post(gateway_.workers, [self = shared_from_this(), body = std::move(body)]() mutable {
            std::optional<Json> parsed = parseJson(body);
            if (self->path_ == "/v1/event") {
                // Events are handled whole off the loop: the image may need decoding and saving.
                const auto [status, text] = self->handleEvent(parsed);
                return asio::post(self->gateway_.loop, [self, status, text] { self->respond(status, text); });
            }
            asio::post(self->gateway_.loop, [self, body = std::move(body), parsed = std::move(parsed)]() mutable {
                if (self->path_ == "/v1/toolcall") {
                    self->handleToolCall(std::move(body), std::move(parsed));
                } else {
                    self->handleAnswer(parsed);
                }
            });
        });
    }

    void servePage() {
        std::string_view content = devGatewayPageHTML();
        std::string_view type = "text/html; charset=utf-8";
        if (path_ == "/page.js") {
            content = devGatewayPageScript();
            type = "text/javascript; charset=utf-8";
        } else if (path_ == "/page.css") {
            content = devGatewayPageStyle();
            type = "text/css; charset=utf-8";
        }
        respond(200, std::string(content), type);
    }

    void servePending() {
        const std::string_view target = target_;
        const std::size_t since = target.find("since=");
        const std::string seen = since == std::string_view::npos ? std::string() : std::string(target.substr(since + 6));
        if (seen != std::to_string(gateway_.version)) {
            return respond(200, jsonText(gateway_.pendingList(), R"({"pending":[]})"));
        }
        waiting_ = Waiting::poll;
        // A page polls again on the same connection: keep one entry per live session.
        std::erase_if(gateway_.pollers, [this](const std::weak_ptr<Session>& poller) {
            return poller.expired() || poller.lock().get() == this;
        });
        gateway_.pollers.push_back(weak_from_this());
        armTimer(gateway_.limits.pollSeconds, [](Session& self) { self.answerPoll(); });
    }

    std::pair<int, std::string> handleEvent(const std::optional<Json>& body) {
        if (!body || !body->isObject()) {
            gateway_.logRefusal(path_, 400, "the body is not a JSON object");
            return {400, errorBody("the body must be a JSON object")};
        }
        Json::Object record = {{"kind", Json::string("event")}, {"event", eventForLog(*body)}};
        const std::optional<Json> kind = body->find("kind");
        const std::optional<Json> base64 = body->find("base64");
        if (kind && kind->isString() && kind->stringValue() == "screenshot" && base64 && base64->isString()) {
            const std::optional<Json> mimeType = body->find("mimeType");
            const std::string type(mimeType && mimeType->isString() ? mimeType->stringValue() : "image/png");
            const DevGatewayAuditLog::SavedImage saved = gateway_.auditLog->saveScreenshot(base64->stringValue(), type);
            record.push_back(saved.problem.empty() ? JsonMember{"screenshotFile", Json::string(saved.path)}
                                                   : JsonMember{"screenshotError", Json::string(saved.problem)});
        }
        if (!gateway_.auditLog->append(std::move(record))) {
            return {503, errorBody(kAuditLogDeny)};
        }
        return {204, {}};
    }

    void handleToolCall(std::string body, std::optional<Json> parsed) {
        if (!parsed || !parsed->isObject()) {
            gateway_.logRefusal(path_, 400, "the body is not a JSON object");
            return respond(400, errorBody("the body must be a JSON object"));
        }
        auto read = DevGatewayQuery::parse(*parsed);
        if (const std::string* problem = std::get_if<std::string>(&read)) {
            gateway_.logRefusal(path_, 400, *problem);
            return respond(400, errorBody(*problem));
        }
        query_ = std::get<DevGatewayQuery>(std::move(read));
        std::optional<std::string> remembered;
        if (gateway_.pinStore) {
            remembered = gateway_.pinStore->pin(query_.serverCommand, query_.tool);
        }
        query_.toolKnown = remembered.has_value();
        query_.pinKnown = remembered && *remembered == query_.pinHash;
        verdict_ = gateway_.policy.decide(query_);
        receivedAt_ = std::chrono::system_clock::now();
        // The query as received goes into the log; one that cannot be written as JSON
        // (NaN, 1e400, deep nesting) goes in as its text.
        queryRecord_ = writeJson(*parsed) ? JsonMember{"query", std::move(*parsed)}
                                          : JsonMember{"queryText", Json::string(std::move(body))};
        if (verdict_.decision == DevGatewayDecision::ask) {
            return startAsk(remembered);
        }
        const bool allow = verdict_.decision == DevGatewayDecision::allow;
        if (verdict_.delaySeconds > 0.0) {
            waiting_ = Waiting::call;
            watchForHangUp();
            return armTimer(verdict_.delaySeconds, [allow](Session& self) {
                self.finishCall(allow, self.verdict_.reason, "policy");
            });
        }
        waiting_ = Waiting::call;
        finishCall(allow, verdict_.reason, "policy");
    }

    void startAsk(const std::optional<std::string>& remembered) {
        askID_ = gateway_.nextAskID++;
        const auto deadline = receivedAt_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                                std::chrono::duration<double>(verdict_.timeoutSeconds));
        Json::Object summary = {
            {"id", Json::string(std::to_string(askID_))},
            {"tool", Json::string(query_.tool)},
            {"risk", Json::string(query_.risk)},
            {"workerName", Json::string(query_.workerName)},
            {"serverCommand", Json::string(query_.serverCommand)},
            {"argumentsJSON", Json::string(query_.argumentsJSON)},
            {"pinHash", Json::string(query_.pinHash)},
            {"pinChanged", Json::boolean(query_.pinChanged)},
            {"receivedAt", Json::string(auditTimestamp(receivedAt_))},
            {"deadline", Json::string(auditTimestamp(deadline))},
            {"rule", Json::integer(static_cast<std::int64_t>(verdict_.ruleIndex.value_or(0)))},
            {"note", Json::string(verdict_.reason)},
        };
        if (!query_.provider.empty()) summary.push_back({"provider", Json::string(query_.provider)});
        if (query_.pinChanged) summary.push_back({"previousPinHash", Json::string(query_.previousPinHash)});
        if (remembered && *remembered != query_.pinHash) {
            summary.push_back({"rememberedPinHash", Json::string(*remembered)});
        }
        gateway_.asks[askID_] = PendingAsk{weak_from_this(), Json::object(std::move(summary))};
        gateway_.pendingChanged();
        waiting_ = Waiting::call;
        watchForHangUp();
        const double timeout = verdict_.timeoutSeconds;
        armTimer(timeout, [timeout](Session& self) {
            self.finishCall(false, "no one answered on the approval page within " + secondsText(timeout) + " s",
                            "timeout");
        });
    }

    void handleAnswer(const std::optional<Json>& body) {
        const std::optional<Json> id = body && body->isObject() ? body->find("id") : std::nullopt;
        const std::optional<Json> decision = body && body->isObject() ? body->find("decision") : std::nullopt;
        const std::optional<Json> reason = body && body->isObject() ? body->find("reason") : std::nullopt;
        const bool wellFormed = id && id->isString() && decision && decision->isString() &&
                                (decision->stringValue() == "allow" || decision->stringValue() == "deny") &&
                                (!reason || reason->isString()) && !firstDuplicateKey(*body);
        if (!wellFormed) {
            gateway_.logRefusal(path_, 400, "not an answer");
            return respond(400, errorBody(R"(the body must be {"id":"...","decision":"allow"|"deny","reason":"..."})"));
        }
        std::uint64_t askID = 0;
        try {
            askID = std::stoull(std::string(id->stringValue()));
        } catch (...) {
            askID = 0;
        }
        const auto found = gateway_.asks.find(askID);
        const std::shared_ptr<Session> call = found == gateway_.asks.end() ? nullptr : found->second.session.lock();
        if (!call) {
            return respond(404, errorBody("that call is no longer waiting"));
        }
        const bool allow = decision->stringValue() == "allow";
        const std::string typed(reason ? reason->stringValue() : std::string_view());
        call->finishCall(allow, typed.empty() ? (allow ? std::string() : "denied on the approval page") : typed,
                         "page", typed);
        respond(200, R"({"answered":true})");
    }

    // Reads nothing, but notices when the bridge closes the connection of a waiting call
    // (as when its client cancels the call).
    void watchForHangUp() {
        stream_.socket().async_wait(tcp::socket::wait_read,
                                    [self = shared_from_this(), wait = waitID_](beast::error_code error) {
                                        if (wait != self->waitID_ || self->waiting_ != Waiting::call) return;
                                        char byte = 0;
                                        const ssize_t peeked = error ? 0
                                                                     : ::recv(self->stream_.socket().native_handle(),
                                                                              &byte, 1, MSG_PEEK | MSG_DONTWAIT);
                                        if (peeked > 0) return; // a pipelined request: read once answered
                                        if (peeked < 0 && (errno == EAGAIN || errno == EINTR)) {
                                            return self->watchForHangUp();
                                        }
                                        self->abandon();
                                    });
    }

    void abandon() {
        const bool wasAsk = askID_ != 0;
        endWait();
        Json::Object record = {{"kind", Json::string("toolcall")},
                               {"tool", Json::string(query_.tool)},
                               {"decision", Json::string("abandoned")},
                               {"reason", Json::string("the bridge closed the connection while the call waited")},
                               {"waitedSeconds", Json::real(waitedSeconds())}};
        if (wasAsk) record.push_back({"asked", Json::boolean(true)});
        if (verdict_.ruleIndex) record.push_back({"rule", Json::integer(static_cast<std::int64_t>(*verdict_.ruleIndex))});
        record.push_back(std::move(queryRecord_));
        (void)gateway_.auditLog->append(std::move(record));
        close();
    }

    double waitedSeconds() const {
        return std::chrono::duration<double>(std::chrono::system_clock::now() - receivedAt_).count();
    }

    template <typename Then>
    void armTimer(double seconds, Then then) {
        timer_.expires_after(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
        timer_.async_wait([self = shared_from_this(), wait = waitID_, then](beast::error_code error) {
            if (!error && wait == self->waitID_) then(*self);
        });
    }

    // Leaves any wait: cancels its timer and hang-up watch and takes the call off the page.
    void endWait() {
        ++waitID_;
        waiting_ = Waiting::none;
        timer_.cancel();
        beast::error_code ignored;
        stream_.socket().cancel(ignored);
        if (askID_ != 0) {
            gateway_.asks.erase(askID_);
            askID_ = 0;
            gateway_.pendingChanged();
        }
    }

    void refuse(int status, std::string_view problem) {
        gateway_.logRefusal(path_.empty() ? std::string_view("?") : std::string_view(path_), status, problem);
        keepAlive_ = false; // the body, if any, is never read
        Response response{static_cast<http::status>(status), 11};
        if (status == 401) response.set(http::field::www_authenticate, "Bearer");
        send(std::move(response), errorBody(problem), kJsonType);
    }

    void respond(int status, std::string body, std::string_view type = kJsonType) {
        Response response{static_cast<http::status>(status), 11};
        if (type != kJsonType) {
            response.set("Content-Security-Policy", kPageCSP);
            response.set("Referrer-Policy", "no-referrer");
            response.set("X-Frame-Options", "DENY");
        }
        if (parser_ && !parser_->get().keep_alive()) keepAlive_ = false;
        send(std::move(response), status == 204 ? std::string() : std::move(body), type);
    }

    void send(Response response, std::string body, std::string_view type) {
        response.set(http::field::server, "sentrova-dev-gateway");
        response.set(http::field::cache_control, "no-store");
        response.set("X-Content-Type-Options", "nosniff");
        if (response.result() != http::status::no_content) {
            response.set(http::field::content_type, type);
            response.body() = std::move(body);
        }
        response.keep_alive(keepAlive_);
        response.prepare_payload();
        response_ = std::move(response);
        stream_.expires_after(std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(gateway_.limits.idleSeconds)));
        http::async_write(stream_, response_, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error) return self->close();
            if (!self->keepAlive_) return self->lingerThenClose();
            self->path_.clear();
            self->readHeader();
        });
    }

    // Closing at once with unread bytes (a refused body) would reset the connection, and the
    // reset can destroy the answer before the client reads it. So the gateway stops sending,
    // reads and drops what still comes for at most a second, then closes.
    void lingerThenClose() {
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream_.expires_after(std::chrono::seconds(1));
        drain(256 * 1024);
    }

    void drain(std::size_t budget) {
        stream_.async_read_some(asio::buffer(drained_), [self = shared_from_this(), budget](beast::error_code error,
                                                                                           std::size_t count) {
            if (error || count >= budget) return self->close();
            self->drain(budget - count);
        });
    }

    void close() {
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream_.socket().close(ignored);
    }

    beast::tcp_stream stream_;
    Gateway& gateway_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    Response response_;
    std::string target_;
    std::string path_;
    bool keepAlive_ = true;
    std::array<char, 16384> drained_{};

    // The waiting call or poll, if any.
    asio::steady_timer timer_;
    Waiting waiting_ = Waiting::none;
    std::uint64_t waitID_ = 0; // handlers of an earlier wait compare this and do nothing
    std::uint64_t askID_ = 0;
    DevGatewayQuery query_;
    DevGatewayVerdict verdict_;
    JsonMember queryRecord_;
    std::chrono::system_clock::time_point receivedAt_;
};

void Session::finishCall(bool allow, std::string reason, std::string_view answeredBy, const std::string& pageReason) {
    if (waiting_ != Waiting::call) return;
    const bool wasAsk = askID_ != 0;
    endWait();
    Json::Object record = {{"kind", Json::string("toolcall")},
                           {"tool", Json::string(query_.tool)},
                           {"decision", Json::string(allow ? "allow" : "deny")},
                           {"answeredBy", Json::string(std::string(answeredBy))},
                           {"delaySeconds", Json::real(verdict_.delaySeconds)}};
    if (!allow || !reason.empty()) record.push_back({"reason", Json::string(reason)});
    if (verdict_.ruleIndex) record.push_back({"rule", Json::integer(static_cast<std::int64_t>(*verdict_.ruleIndex))});
    if (wasAsk) {
        record.push_back({"asked", Json::boolean(true)});
        record.push_back({"askedAt", Json::string(auditTimestamp(receivedAt_))});
        record.push_back({"waitedSeconds", Json::real(waitedSeconds())});
        if (answeredBy == "page") record.push_back({"pageReason", Json::string(pageReason)});
    }
    record.push_back(queryRecord_);
    // A decision that leaves no trace is not given: without its record, the call is denied.
    if (!gateway_.auditLog->append(std::move(record))) {
        allow = false;
        reason = std::string(kAuditLogDeny);
    }
    if (allow && gateway_.pinStore && !query_.pinHash.empty()) {
        if (auto problem = gateway_.pinStore->remember(query_.serverCommand, query_.tool, query_.pinHash)) {
            std::fprintf(stderr, "sentrova-dev-gateway: %s\n", problem->c_str());
        }
    }
    respond(200, verdictBody(allow, reason));
}

} // namespace

void DevGatewayServer::Impl::pendingChanged() {
    ++version;
    std::vector<std::weak_ptr<Session>> waiting;
    waiting.swap(pollers);
    for (const std::weak_ptr<Session>& poller : waiting) {
        if (const std::shared_ptr<Session> session = poller.lock()) {
            session->answerPoll();
        }
    }
}

void DevGatewayServer::Impl::accept() {
    acceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor.is_open()) {
            return;
        }
        if (error) {
            // Out of descriptors, most likely: try again shortly rather than spin.
            acceptRetry.expires_after(std::chrono::milliseconds(100));
            return acceptRetry.async_wait([this](beast::error_code e) {
                if (!e) accept();
            });
        }
        if (connections.load() >= limits.maxConnections) {
            beast::error_code ignored;
            socket.close(ignored);
        } else {
            socket.set_option(tcp::no_delay(true), error);
            std::make_shared<Session>(std::move(socket), *this)->start();
        }
        accept();
    });
}

DevGatewayServer::DevGatewayServer(DevGatewayPolicy policy, std::shared_ptr<DevGatewayAuditLog> auditLog,
                                   std::string token, std::shared_ptr<DevGatewayPinStore> pinStore,
                                   DevGatewayLimits limits)
    : impl_(std::make_unique<Impl>(std::move(policy), std::move(auditLog), std::move(token), std::move(pinStore),
                                   limits)) {}

DevGatewayServer::~DevGatewayServer() {
    stop();
}

std::optional<int> DevGatewayServer::bind(const std::string& host, int port) {
    beast::error_code error;
    const asio::ip::address address = asio::ip::make_address(host, error);
    if (error) {
        return std::nullopt;
    }
    const tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
    Impl& impl = *impl_;
    impl.acceptor.open(endpoint.protocol(), error);
    if (!error) impl.acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) impl.acceptor.bind(endpoint, error);
    if (!error) impl.acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        impl.acceptor.close(error);
        return std::nullopt;
    }
    const int bound = impl.acceptor.local_endpoint().port();
    const std::string hostPart = address.is_v6() ? "[" + host + "]" : host;
    impl.ownHosts = {hostPart + ":" + std::to_string(bound), "localhost:" + std::to_string(bound)};
    if (bound == 80) {
        impl.ownHosts.push_back(hostPart);
        impl.ownHosts.push_back("localhost");
    }
    return bound;
}

void DevGatewayServer::run() {
    impl_->accept();
    impl_->loop.run();
}

void DevGatewayServer::stop() {
    impl_->loop.stop();
}

} // namespace sentrova
