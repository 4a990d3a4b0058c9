#include "MCPBridgeCore/HTTPBridgeGatewayClient.hpp"

#include "MCPBridgeCore/CurlLibrary.hpp"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace sentrova {

namespace {

// The HTTP layer lets an exchange run this much longer than the caller waits for it.
constexpr double transportGraceSeconds = 5.0;
constexpr double eventTimeoutSeconds = 60.0;
// Idle gateway connections kept open for reuse: a bounded pool, so that a burst of calls side by
// side leaves no lasting descriptors behind.
constexpr long keptConnections = 16;
// Longer finite deadlines are capped here (about 31 years) so that clock arithmetic cannot overflow.
constexpr double longestFiniteDeadline = 1e9;
BridgeDecision denyWith(std::string_view reason) { return BridgeDecision::deny(std::string(reason)); }

// A token that would break the header line (or be cut at a NUL by libcurl) makes every request unsendable.
bool usableAsHeaderValue(const std::optional<std::string>& token) {
    return !token || token->find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

// ---- time limits ------------------------------------------------------------------------------

// How long a caller waits and how long libcurl may work, derived once from the configured deadline.
// A NaN or negative deadline counts as 0 (every decision that is not already answered times out);
// +infinity waits without limit, as asked.
struct TimeLimits {
    bool waitsForever = false;
    std::chrono::steady_clock::duration decisionWait{};
    long decisionTransferMs = 0; // 0: no limit
    long eventTransferMs = 0;

    static long milliseconds(double seconds) {
        double ms = std::ceil(seconds * 1000.0);
        return ms >= static_cast<double>(LONG_MAX) ? LONG_MAX : static_cast<long>(ms);
    }

    explicit TimeLimits(double deadline) {
        if (std::isnan(deadline) || deadline < 0) deadline = 0;
        if (std::isinf(deadline)) {
            waitsForever = true;
            decisionTransferMs = 0;
            eventTransferMs = milliseconds(eventTimeoutSeconds);
            return;
        }
        deadline = std::min(deadline, longestFiniteDeadline);
        decisionWait = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(deadline));
        decisionTransferMs = milliseconds(deadline + transportGraceSeconds);
        eventTransferMs = milliseconds(std::min(eventTimeoutSeconds, deadline + transportGraceSeconds));
    }
};

// ---- one exchange -----------------------------------------------------------------------------

using Clock = std::chrono::steady_clock;

// Where a caller and the worker meet. The handler is taken out exactly once: by the first answer
// (the worker's, or a failure's), or by a caller that gave up, so that the worker does not start
// (or stops) its request and the handler is never called after that.
struct PendingDecision {
    std::mutex lock;
    BridgeGatewayClient::DecisionHandler onDecision; // under lock; empty once answered or abandoned
    std::optional<Clock::time_point> deadline;       // none: waits without limit; read-only

    void complete(BridgeDecision result) {
        BridgeGatewayClient::DecisionHandler handler;
        {
            std::lock_guard<std::mutex> guard(lock);
            handler.swap(onDecision);
        }
        if (handler) handler(std::move(result)); // outside the lock: the handler writes to the streams
    }
    // True when the request was still waiting for its answer.
    bool abandon() {
        BridgeGatewayClient::DecisionHandler dropped; // destroyed outside the lock
        std::lock_guard<std::mutex> guard(lock);
        dropped.swap(onDecision);
        return static_cast<bool>(dropped);
    }
    bool isSettled() {
        std::lock_guard<std::mutex> guard(lock);
        return !onDecision;
    }
    bool isOverdue(Clock::time_point now) const { return deadline && *deadline <= now; }
};

// One POST, owned by the worker from the moment it is queued.
struct Transfer {
    std::string url;
    std::string body;
    long timeoutMs = 0;
    std::shared_ptr<PendingDecision> pending; // null for an event
    std::string response;
    const CurlLibrary* curl = nullptr; // set with easy
    CURL* easy = nullptr;

    ~Transfer() {
        if (easy != nullptr) curl->easyCleanup(easy);
    }

    // No verdict is anywhere near 1 MiB: a longer answer is unreadable, and is not read further.
    static constexpr std::size_t kMaxAnswer = std::size_t{1} << 20;

    // A short count makes libcurl stop the transfer; the emptied body then reads as unreadable.
    static size_t keepBody(char* data, size_t size, size_t count, void* context) {
        std::string& response = static_cast<Transfer*>(context)->response;
        try {
            if (response.size() + size * count <= kMaxAnswer) {
                response.append(data, size * count);
                return size * count;
            }
        } catch (...) {
        }
        std::string().swap(response);
        return 0;
    }
    static size_t dropBody(char*, size_t size, size_t count, void*) { return size * count; }
};

// status 200 (with a body, possibly empty) is a verdict; every other ending is the no-answer deny.
BridgeDecision decisionFor(CURLcode result, long status, const std::string& body) {
    try {
        // A write error is the body callback refusing an answer too long to be a verdict.
        if ((result == CURLE_OK || result == CURLE_WRITE_ERROR) && status == 200) return BridgeDecision::parse(body);
    } catch (...) {
        // Out of memory while reading the verdict: no verdict, so the call is denied like any other.
    }
    return denyWith(GatewayDenyReason::noAnswer);
}

} // namespace

// ---- the session: one multi handle, one worker thread -----------------------------------------

// Callers hand transfers and cancellations over through `queueLock` and wake the worker with
// curl_multi_wakeup; every other curl call happens on the worker, so the multi handle and the
// easy handles need no locking of their own. The URLs and limits are settled at construction;
// the worker only comes with the first request (`ensureStarted`), and it loads libcurl itself, so
// that no caller, postEvent included, ever waits for the library to load.
struct HTTPBridgeGatewayClient::Session {
    std::optional<std::string> decisionURL;
    std::optional<std::string> eventURL;
    bool sendable = false;
    TimeLimits limits;
    std::optional<std::string> token;
    std::optional<std::string> caBundle;
    CurlLoader loadCurl;
    std::once_flag startOnce;

    // Written by the worker before it publishes `running`; read-only afterwards.
    const CurlLibrary* curl = nullptr;
    curl_slist* headers = nullptr;
    CURLM* multi = nullptr;

    enum class Phase { idle, starting, running, failed };

    std::mutex queueLock;
    Phase phase = Phase::idle; // under queueLock
    std::vector<std::unique_ptr<Transfer>> submitted;
    std::vector<std::shared_ptr<PendingDecision>> cancelled;
    bool stopping = false;
    std::thread worker;

    Session(const GatewayEndpoint& endpoint, std::optional<std::string> bearer, double deadline, CurlLoader loader,
            std::optional<std::string> caFile)
        : decisionURL(endpoint.decisionURL()), eventURL(endpoint.eventURL()), limits(deadline),
          token(std::move(bearer)), caBundle(std::move(caFile)), loadCurl(loader) {
        // Unsendable: every request fails at once, and neither libcurl nor a thread is ever needed.
        sendable = endpoint.sendable() && usableAsHeaderValue(token);
    }

    // Starts the worker on the first request; later calls only look. Requests made while it
    // loads libcurl wait in the queue; when anything is missing they fail closed.
    void ensureStarted() {
        std::call_once(startOnce, [this] {
            std::lock_guard<std::mutex> guard(queueLock);
            try {
                worker = std::thread([this] { loadThenRun(); });
                phase = Phase::starting;
            } catch (...) {
                phase = Phase::failed;
            }
        });
    }

    void loadThenRun() noexcept {
        const bool loaded = load();
        std::vector<std::unique_ptr<Transfer>> orphaned;
        {
            std::lock_guard<std::mutex> guard(queueLock);
            phase = loaded ? Phase::running : Phase::failed;
            if (!loaded) {
                orphaned.swap(submitted);
                cancelled.clear();
            }
        }
        for (auto& transfer : orphaned) finishUnsent(*transfer);
        if (loaded) run();
    }

    bool load() noexcept {
        curl = loadCurl != nullptr ? loadCurl() : nullptr;
        if (curl == nullptr) return false;
        headers = curl->slistAppend(nullptr, "Content-Type: application/json");
        // libcurl would otherwise hold back large bodies (screenshots) waiting for "100 Continue".
        if (headers) headers = appendOrFree(headers, "Expect:");
        try {
            if (headers && token) headers = appendOrFree(headers, ("Authorization: Bearer " + *token).c_str());
        } catch (...) {
            curl->slistFreeAll(headers);
            headers = nullptr;
        }
        CURLM* created = curl->multiInit();
        if (headers == nullptr || created == nullptr) {
            if (created != nullptr) curl->multiCleanup(created);
            releaseCurl();
            return false;
        }
        // Idle connections kept for reuse stay within what the calls pending at once can use.
        curl->multiSetopt(created, CURLMOPT_MAXCONNECTS, static_cast<long>(keptConnections));
        multi = created;
        return true;
    }

    ~Session() {
        bool wake = false;
        {
            std::lock_guard<std::mutex> guard(queueLock);
            stopping = true;
            wake = phase == Phase::running;
        }
        if (wake) curl->multiWakeup(multi);
        if (worker.joinable()) worker.join();
        for (auto& transfer : submitted) finishUnsent(*transfer);
        releaseCurl();
    }

    curl_slist* appendOrFree(curl_slist* list, const char* line) {
        curl_slist* grown = curl->slistAppend(list, line);
        if (grown == nullptr) curl->slistFreeAll(list);
        return grown;
    }

    void releaseCurl() {
        if (curl == nullptr) return; // never loaded: nothing was made
        if (multi != nullptr) curl->multiCleanup(multi);
        multi = nullptr;
        curl->slistFreeAll(headers);
        headers = nullptr;
    }

    // Queues a transfer for the worker; false when the session cannot carry it.
    bool submit(std::unique_ptr<Transfer> transfer) {
        bool wake = false;
        {
            std::lock_guard<std::mutex> guard(queueLock);
            if (stopping || phase == Phase::idle || phase == Phase::failed) return false;
            submitted.push_back(std::move(transfer));
            wake = phase == Phase::running; // a worker still loading drains the queue when it starts
        }
        if (wake) curl->multiWakeup(multi);
        return true;
    }

    void withdraw(std::shared_ptr<PendingDecision> pending) {
        {
            std::lock_guard<std::mutex> guard(queueLock);
            if (stopping || phase != Phase::running) return; // nothing of it reached the network
            cancelled.push_back(std::move(pending));
        }
        curl->multiWakeup(multi);
    }

    static void finishUnsent(Transfer& transfer) {
        if (transfer.pending) transfer.pending->complete(denyWith(GatewayDenyReason::noAnswer));
    }

    // ---- worker thread only ----

    std::unordered_map<Transfer*, std::unique_ptr<Transfer>> active;

    bool configure(Transfer& transfer) {
        CURL* easy = curl->easyInit();
        if (easy == nullptr) return false;
        transfer.curl = curl;
        transfer.easy = easy;
        // Through the pointer libcurl's compile-time option checks do not apply: every value
        // below has exactly the type its option takes (long, curl_off_t, a pointer, a callback).
        auto set = curl->easySetopt;
        curl_write_callback writer = transfer.pending != nullptr ? &Transfer::keepBody : &Transfer::dropBody;
        bool ok = set(easy, CURLOPT_URL, transfer.url.c_str()) == CURLE_OK &&
                  set(easy, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK &&
                  set(easy, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
                  set(easy, CURLOPT_HTTPHEADER, headers) == CURLE_OK &&
                  set(easy, CURLOPT_POST, 1L) == CURLE_OK &&
                  set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer.body.size())) == CURLE_OK &&
                  set(easy, CURLOPT_POSTFIELDS, transfer.body.data()) == CURLE_OK &&
                  set(easy, CURLOPT_TIMEOUT_MS, transfer.timeoutMs) == CURLE_OK &&
                  set(easy, CURLOPT_WRITEFUNCTION, writer) == CURLE_OK &&
                  set(easy, CURLOPT_WRITEDATA, &transfer) == CURLE_OK &&
                  set(easy, CURLOPT_PRIVATE, &transfer) == CURLE_OK &&
                  (!caBundle || set(easy, CURLOPT_CAINFO, caBundle->c_str()) == CURLE_OK);
        return ok && curl->multiAddHandle(multi, easy) == CURLM_OK;
    }

    void begin(std::unique_ptr<Transfer> transfer) {
        if (transfer->pending && transfer->pending->isSettled()) return;
        if (transfer->pending && transfer->pending->isOverdue(Clock::now())) {
            transfer->pending->complete(denyWith(GatewayDenyReason::timedOut));
            return;
        }
        Transfer* key = transfer.get();
        active.emplace(key, std::move(transfer));
        if (configure(*key)) return;
        finishUnsent(*key);
        active.erase(key);
    }

    // Removing an unfinished transfer closes its connection, so the gateway sees the request go away.
    void stop(const std::shared_ptr<PendingDecision>& pending) {
        for (auto it = active.begin(); it != active.end(); ++it) {
            if (it->second->pending == pending) {
                curl->multiRemoveHandle(multi, it->second->easy);
                active.erase(it);
                return;
            }
        }
    }

    void collectFinished() {
        int queued = 0;
        while (CURLMsg* message = curl->multiInfoRead(multi, &queued)) {
            if (message->msg != CURLMSG_DONE) continue;
            char* owner = nullptr; // CURLOPT_PRIVATE comes back as char*
            curl->easyGetinfo(message->easy_handle, CURLINFO_PRIVATE, &owner);
            auto it = active.find(reinterpret_cast<Transfer*>(owner));
            if (it == active.end()) continue;
            Transfer& transfer = *it->second;
            if (transfer.pending) {
                long status = 0;
                curl->easyGetinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
                transfer.pending->complete(decisionFor(message->data.result, status, transfer.response));
            }
            curl->multiRemoveHandle(multi, transfer.easy);
            active.erase(it); // the message points into the handle: read nothing after this
        }
    }

    // Decisions whose deadline has passed are answered with the time-out and their requests
    // removed (the gateway sees the connection go). Returns how long until the next deadline.
    long expireOverdue() {
        const Clock::time_point now = Clock::now();
        long untilNext = 1000;
        for (auto it = active.begin(); it != active.end();) {
            const std::shared_ptr<PendingDecision>& pending = it->second->pending;
            if (pending && pending->isOverdue(now)) {
                pending->complete(denyWith(GatewayDenyReason::timedOut));
                curl->multiRemoveHandle(multi, it->second->easy);
                it = active.erase(it);
                continue;
            }
            if (pending && pending->deadline) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(*pending->deadline - now).count();
                untilNext = std::min(untilNext, static_cast<long>(left));
            }
            ++it;
        }
        return untilNext;
    }

    void run() {
        pthread_setname_np(pthread_self(), "sentrova-http");
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> incoming;
            std::vector<std::shared_ptr<PendingDecision>> withdrawn;
            {
                std::lock_guard<std::mutex> guard(queueLock);
                if (stopping) break;
                incoming.swap(submitted);
                withdrawn.swap(cancelled);
            }
            for (const auto& pending : withdrawn) stop(pending);
            for (auto& transfer : incoming) begin(std::move(transfer));

            int stillRunning = 0;
            curl->multiPerform(multi, &stillRunning);
            collectFinished();
            const long untilDeadline = expireOverdue();
            // Returns early for socket activity, libcurl's own timers or curl_multi_wakeup; the
            // one-second ceiling only bounds the cost of a wake-up that might go missing.
            curl->multiPoll(multi, nullptr, 0, static_cast<int>(std::max(untilDeadline, 0L)), nullptr);
        }
        for (auto& [key, transfer] : active) {
            curl->multiRemoveHandle(multi, transfer->easy);
            finishUnsent(*transfer);
        }
        active.clear();
    }
};

// ---- the client -------------------------------------------------------------------------------

HTTPBridgeGatewayClient::HTTPBridgeGatewayClient(const GatewayEndpoint& endpoint, std::optional<std::string> token,
                                                 double deadline, std::optional<std::string> caBundle)
    : HTTPBridgeGatewayClient(endpoint, std::move(token), deadline, &CurlLibrary::shared, std::move(caBundle)) {}

HTTPBridgeGatewayClient::HTTPBridgeGatewayClient(const GatewayEndpoint& endpoint, std::optional<std::string> token,
                                                 double deadline, CurlLoader loadCurl,
                                                 std::optional<std::string> caBundle)
    : session_(std::make_unique<Session>(endpoint, std::move(token), deadline, loadCurl, std::move(caBundle))) {}

HTTPBridgeGatewayClient::~HTTPBridgeGatewayClient() = default;

namespace {

// The caller's hold on one started decision.
class DecisionWithdrawal final : public BridgeCancellable {
public:
    using Withdraw = std::function<void(std::shared_ptr<PendingDecision>)>;
    DecisionWithdrawal(std::shared_ptr<PendingDecision> pending, Withdraw withdraw)
        : pending_(std::move(pending)), withdraw_(std::move(withdraw)) {}
    void cancel() override {
        if (pending_->abandon()) withdraw_(pending_);
    }

private:
    std::shared_ptr<PendingDecision> pending_;
    Withdraw withdraw_;
};

} // namespace

std::shared_ptr<BridgeCancellable> HTTPBridgeGatewayClient::startDecision(const BridgeToolCallQuery& query,
                                                                          DecisionHandler onDecision) {
    auto pending = std::make_shared<PendingDecision>();
    pending->onDecision = std::move(onDecision);
    try {
        Session& session = *session_;
        if (!session.decisionURL) {
            pending->complete(denyWith(GatewayDenyReason::urlInvalid));
            return nullptr;
        }
        if (!session.sendable) {
            pending->complete(denyWith(GatewayDenyReason::noAnswer));
            return nullptr;
        }
        // The deadline counts from here: loading libcurl on the first call is part of it.
        if (!session.limits.waitsForever) pending->deadline = Clock::now() + session.limits.decisionWait;
        session.ensureStarted();

        auto transfer = std::make_unique<Transfer>();
        transfer->url = *session.decisionURL;
        transfer->body = query.httpBody();
        transfer->timeoutMs = session.limits.decisionTransferMs;
        transfer->pending = pending;
        if (!session.submit(std::move(transfer))) {
            pending->complete(denyWith(GatewayDenyReason::noAnswer));
            return nullptr;
        }
        return std::make_shared<DecisionWithdrawal>(
            pending, [&session](std::shared_ptr<PendingDecision> given) { session.withdraw(std::move(given)); });
    } catch (...) {
        pending->complete(denyWith(GatewayDenyReason::noAnswer));
        return nullptr;
    }
}

BridgeDecision HTTPBridgeGatewayClient::requestDecision(const BridgeToolCallQuery& query) {
    struct Answer {
        std::mutex lock;
        std::condition_variable arrived;
        std::optional<BridgeDecision> decision;
    };
    try {
        auto answer = std::make_shared<Answer>();
        // The worker answers every started decision by its deadline, so this wait is bounded by it.
        auto handle = startDecision(query, [answer](BridgeDecision decision) {
            {
                std::lock_guard<std::mutex> guard(answer->lock);
                answer->decision = std::move(decision);
            }
            answer->arrived.notify_one();
        });
        std::unique_lock<std::mutex> guard(answer->lock);
        answer->arrived.wait(guard, [&] { return answer->decision.has_value(); });
        return std::move(*answer->decision);
    } catch (...) {
        return denyWith(GatewayDenyReason::noAnswer);
    }
}

void HTTPBridgeGatewayClient::postEvent(const BridgeEvent& event) {
    try {
        Session& session = *session_;
        if (!session.eventURL || !session.sendable) return;
        session.ensureStarted();
        auto transfer = std::make_unique<Transfer>();
        transfer->url = *session.eventURL;
        transfer->body = event.httpBody();
        transfer->timeoutMs = session.limits.eventTransferMs;
        session.submit(std::move(transfer));
    } catch (...) {
        // An event that cannot be sent is lost, like one the gateway never receives.
    }
}

} // namespace sentrova
