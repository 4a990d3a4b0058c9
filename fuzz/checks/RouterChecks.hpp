#pragma once

// Properties of the router's two line handlers, shared by the fuzz target and the regression replay.
//
// Input layout: byte 0 holds flags (bit 0: the fake gateway allows its first decision; it then
// alternates deny/allow). The rest is split at LF into lines; a line that starts with '<' is a
// server line (without the '<'), any other a client line; empty lines are skipped, as the line
// pump never delivers them.
//
// Invariants:
// - every write is exactly one line: non-empty, ending in its only LF;
// - a server line goes to the client byte for byte and nowhere else; the gateway is not asked;
// - a client line reaches the server only byte for byte, at most once;
// - a client tools/call with an id, under any common reading (exact or Go-style case-insensitive
//   keys, first or last duplicate), reaches the server only when the gateway allowed it for this
//   very line, and then every such reading names the tool and arguments the gateway was asked about;
// - an ambiguous tools/call (repeated or case-variant envelope members) never reaches the server;
// - a line the bridge cannot read as an object, and any line that no reading takes as a
//   tools/call, is relayed to the server (no line lost);
// - every heartbeat timer armed for a call is cancelled once the call is decided.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "MCPBridgeCore/MCPBridgeRouter.hpp"
#include "MCPBridgeCore/ClientLineReadings.hpp"
#include "JsonChecks.hpp"

namespace sentrova::fuzzcheck {

// ---------------------------------------------------------------------------------------------
// Fakes.

class FakeScheduler final : public BridgeScheduler {
public:
    struct Timer final : BridgeCancellable {
        std::function<void()> action;
        bool cancelled = false;
        void cancel() override { cancelled = true; }
    };

    std::shared_ptr<BridgeCancellable> scheduleRepeating(double, std::function<void()> action) override {
        auto timer = std::make_shared<Timer>();
        timer->action = std::move(action);
        timers.push_back(timer);
        return timer;
    }

    // Runs every armed timer's action as if its interval had passed.
    void tick() {
        const auto armed = timers; // an action may arm nothing, but stay safe against growth
        for (const auto& timer : armed) {
            if (!timer->cancelled) timer->action();
        }
    }

    std::size_t armedCount() const {
        std::size_t n = 0;
        for (const auto& timer : timers) n += timer->cancelled ? 0 : 1;
        return n;
    }

    std::vector<std::shared_ptr<Timer>> timers;
};

class FakeGateway final : public BridgeGatewayClient {
public:
    FakeGateway(bool allowFirst, FakeScheduler& scheduler) : nextAllow_(allowFirst), scheduler_(scheduler) {}

    BridgeDecision requestDecision(const BridgeToolCallQuery& query) override {
        queries.push_back(query);
        scheduler_.tick(); // heartbeats fire while the decision is pending
        scheduler_.tick();
        const bool allow = nextAllow_;
        nextAllow_ = !nextAllow_;
        decisions.push_back(allow);
        return allow ? BridgeDecision::allow() : BridgeDecision::deny("fuzz says no");
    }

    void postEvent(const BridgeEvent& event) override { events.push_back(event); }

    std::vector<BridgeToolCallQuery> queries;
    std::vector<bool> decisions;
    std::vector<BridgeEvent> events;

private:
    bool nextAllow_;
    FakeScheduler& scheduler_;
};

// ---------------------------------------------------------------------------------------------
// Readings of a client object as servers built on different parsers see it.

// Go's encoding/json matches a key to a struct field case-insensitively with Unicode simple
// folding, under which U+017F (long s) equals 's' and U+212A (Kelvin sign) equals 'k'.
inline std::string goFold(std::string_view key) {
    std::string out;
    for (std::size_t i = 0; i < key.size(); ++i) {
        const auto c = static_cast<unsigned char>(key[i]);
        if (key.substr(i, 2) == "\xC5\xBF") { // U+017F
            out.push_back('S');
            ++i;
        } else if (key.substr(i, 3) == "\xE2\x84\xAA") { // U+212A
            out.push_back('K');
            i += 2;
        } else {
            out.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : static_cast<char>(c));
        }
    }
    return out;
}

struct Reading {
    bool foldKeys = false; // Go-style
    bool firstWins = false;

    const Json* member(const Json& object, std::string_view name) const {
        if (!object.isObject()) return nullptr;
        const Json* found = nullptr;
        const std::string want = foldKeys ? goFold(name) : std::string(name);
        for (const auto& m : object.objectValue()) {
            const bool matches = foldKeys ? goFold(m.key) == want : m.key == name;
            if (!matches) continue;
            found = &m.value;
            if (firstWins) break;
        }
        return found;
    }

    bool isToolCallWithID(const Json& message) const {
        const Json* method = member(message, "method");
        return method && method->isString() && method->stringValue() == "tools/call" && member(message, "id");
    }
    bool isToolCall(const Json& message) const {
        const Json* method = member(message, "method");
        return method && method->isString() && method->stringValue() == "tools/call";
    }
};

inline const Reading kReadings[] = {{false, false}, {false, true}, {true, false}, {true, true}};

// A tools/call whose envelope different parsers could read differently.
inline bool isAmbiguousToolCall(const Json& message) {
    if (!message.isObject()) return false;
    static const std::string envelope[] = {"method", "id", "params"};
    static const std::string inner[] = {"name", "arguments", "_meta"};
    bool methodLikeIsToolCall = false;
    bool ambiguous = false;
    auto scan = [&](const Json& object, const std::string* names, bool top) {
        for (std::size_t n = 0; n < 3; ++n) {
            int exact = 0;
            for (const auto& m : object.objectValue()) {
                if (m.key == names[n]) ++exact;
                else if (goFold(m.key) == goFold(names[n])) ambiguous = true;
                if (top && n == 0 && goFold(m.key) == goFold("method") && m.value.isString() &&
                    m.value.stringValue() == "tools/call") {
                    methodLikeIsToolCall = true;
                }
            }
            if (exact > 1) ambiguous = true;
        }
    };
    scan(message, envelope, true);
    for (const auto& m : message.objectValue()) {
        if (goFold(m.key) == goFold("params") && m.value.isObject()) scan(m.value, inner, false);
    }
    return ambiguous && methodLikeIsToolCall;
}

inline bool hasIDLikeMember(const Json& message) {
    for (const auto& m : message.objectValue()) {
        if (goFold(m.key) == "ID") return true;
    }
    return false;
}

// ---------------------------------------------------------------------------------------------

struct RecordedWrite {
    bool toServer = false;
    std::string bytes;
};

inline std::string checkLineShape(const RecordedWrite& write) {
    const std::string& b = write.bytes;
    if (b.empty() || b.back() != '\n') return "a write that does not end in LF";
    if (b.find('\n') != b.size() - 1) return "a write holding more than one line";
    if (b.size() == 1) return "an empty line written";
    return {};
}

inline bool isUpperUUIDv4(const std::string& s) {
    if (s.size() != 36) return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (c != '-') return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return s[14] == '4';
}

// The message read by mainstream parsers; falls back to the bridge's own reader only where the
// reference reader gives up on depth.
inline std::optional<Json> mainstreamReading(std::string_view line) {
    bool tooDeep = false;
    auto reference = ReferenceJsonReader::read(line, tooDeep);
    if (reference || !tooDeep) return reference;
    return parseJson(line);
}

inline std::string checkClientLine(const std::string& line, const std::vector<RecordedWrite>& writes,
                                   const FakeGateway& gateway, std::size_t queriesBefore) {
    for (const auto& w : writes) {
        if (auto fault = checkLineShape(w); !fault.empty()) return fault;
    }
    std::vector<const RecordedWrite*> toServer, toClient;
    for (const auto& w : writes) (w.toServer ? toServer : toClient).push_back(&w);
    if (toServer.size() > 1) return "one client line written to the server more than once";
    const bool relayed = toServer.size() == 1;
    if (relayed && toServer[0]->bytes != line + "\n") return "the server received bytes other than the client's line";
    const std::size_t asked = gateway.queries.size() - queriesBefore;
    if (asked > 1) return "the gateway was asked twice for one line";
    const bool allowed = asked == 1 && gateway.decisions.back();

    const std::optional<Json> bridgeView = parseJson(line);

    // A tool call that a CR-splitting server would read out of the line: never relayed.
    // (A CR as the last byte ends the line for every reader alike.)
    bool hiddenCall = false;
    std::string_view body = line;
    if (!body.empty() && body.back() == '\r') body.remove_suffix(1);
    for (std::size_t start = 0; start < body.size() && body.find('\r') != std::string_view::npos;) {
        std::size_t end = body.find('\r', start);
        if (end == std::string_view::npos) end = body.size();
        if (const auto piece = mainstreamReading(body.substr(start, end - start))) {
            for (const auto& reading : kReadings) hiddenCall = hiddenCall || reading.isToolCall(*piece);
        }
        start = end + 1;
    }
    const ClientLineReadings::Answer reading = ClientLineReadings::read(line);
    if (hiddenCall && reading.message) return "a tool call behind a CR was not noticed";
    if (!reading.message) {
        if (relayed || asked) return "a refused line reached the server or the gateway";
        if (toClient.size() != reading.refused.size()) return "a refused line's requests were not answered once per id";
        return {};
    }
    if (!bridgeView->isObject()) {
        if (!relayed || !toClient.empty() || asked) return "a batch without a tool call was not simply relayed";
    }

    const std::optional<Json> message = mainstreamReading(line);
    if (!message || !message->isObject()) return {};

    bool anyCallWithID = false, anyToolCall = false;
    for (const auto& reading : kReadings) {
        anyCallWithID = anyCallWithID || reading.isToolCallWithID(*message);
        anyToolCall = anyToolCall || reading.isToolCall(*message);
    }
    const bool ambiguous = isAmbiguousToolCall(*message);

    if (ambiguous && relayed) return "an ambiguous tools/call reached the server";
    if (anyCallWithID && relayed && !allowed) return "a tools/call with an id reached the server without an allow";
    if (!anyToolCall && !ambiguous && (!relayed || asked)) return "a line that is no tools/call was not relayed";
    if (anyToolCall && !anyCallWithID && !ambiguous && (!relayed || asked)) {
        return "a tools/call notification was not relayed unchecked";
    }
    if (ambiguous) {
        std::size_t answers = 0;
        for (const auto* w : toClient) {
            auto answer = parseJson(std::string_view(w->bytes).substr(0, w->bytes.size() - 1));
            if (answer && answer->find("result")) ++answers;
        }
        if (hasIDLikeMember(*message) && answers != 1) return "an ambiguous call with an id was not answered once";
        if (!hasIDLikeMember(*message) && answers != 0) return "an ambiguous call without an id was answered";
    }
    if (anyCallWithID && !relayed && !ambiguous && toClient.empty()) return "a tools/call with an id got no answer";

    if (relayed && anyCallWithID) {
        const BridgeToolCallQuery& query = gateway.queries.back();
        for (const auto& reading : kReadings) {
            if (!reading.isToolCallWithID(*message)) continue;
            const Json* params = reading.member(*message, "params");
            const Json* name = params ? reading.member(*params, "name") : nullptr;
            if (name && name->isString() && name->stringValue() != query.tool) {
                return "the server executes another tool than the gateway allowed";
            }
            const Json* arguments = params ? reading.member(*params, "arguments") : nullptr;
            if (arguments && (arguments->isObject() || arguments->isArray())) {
                bool deep = false;
                auto approved = ReferenceJsonReader::read(query.argumentsJSON, deep);
                if (!deep && (!approved || !sameValue(*approved, *arguments, false))) {
                    return "the server receives other arguments than the gateway saw";
                }
            }
        }
    }
    if (asked) {
        const BridgeToolCallQuery& query = gateway.queries.back();
        if (!isUpperUUIDv4(query.requestID)) return "request id is not an upper-case UUID v4";
        if (query.pinChanged != query.previousPinHash.has_value()) return "pinChanged without a previous pin";
        bool deep = false;
        if (!ReferenceJsonReader::read(query.argumentsJSON, deep) && !deep) return "argumentsJSON is not JSON";
    }
    for (const auto* w : toClient) {
        auto answer = parseJson(std::string_view(w->bytes).substr(0, w->bytes.size() - 1));
        if (!answer || !answer->isObject()) return "the bridge wrote a message that does not read back";
    }
    return {};
}

inline std::string checkServerLine(const std::string& line, const std::vector<RecordedWrite>& writes,
                                   const FakeGateway& gateway, std::size_t queriesBefore) {
    if (gateway.queries.size() != queriesBefore) return "a server line asked the gateway";
    if (writes.size() != 1 || writes[0].toServer || writes[0].bytes != line + "\n") {
        return "a server line was not relayed to the client byte for byte";
    }
    return {};
}

inline std::string checkRouterInput(std::string_view data) {
    if (data.empty()) return {};
    const bool allowFirst = (static_cast<unsigned char>(data[0]) & 1) != 0;

    auto scheduler = std::make_shared<FakeScheduler>();
    auto gateway = std::make_shared<FakeGateway>(allowFirst, *scheduler);
    std::vector<RecordedWrite> writes;
    MCPBridgeRouter::Config config{"fuzz-worker", std::nullopt, "fuzz server", 1.0};
    auto router = std::make_shared<MCPBridgeRouter>(
        config, [&](std::string_view b) { writes.push_back({false, std::string(b)}); },
        [&](std::string_view b) { writes.push_back({true, std::string(b)}); }, gateway, scheduler);

    std::size_t start = 1;
    while (start <= data.size()) {
        std::size_t end = data.find('\n', start);
        if (end == std::string_view::npos) end = data.size();
        std::string line(data.substr(start, end - start));
        start = end + 1;
        const bool fromServer = !line.empty() && line[0] == '<';
        if (fromServer) line.erase(0, 1);
        if (line.empty()) continue;

        writes.clear();
        const std::size_t queriesBefore = gateway->queries.size();
        std::string fault;
        if (fromServer) {
            router->handleServerLine(line);
            fault = checkServerLine(line, writes, *gateway, queriesBefore);
        } else {
            router->handleClientLine(line);
            fault = checkClientLine(line, writes, *gateway, queriesBefore);
        }
        if (fault.empty() && scheduler->armedCount() != 0) fault = "a heartbeat timer outlived its call";
        if (!fault.empty()) return fault + " (" + (fromServer ? "server" : "client") + " line: " + line + ")";
    }
    return {};
}

} // namespace sentrova::fuzzcheck
