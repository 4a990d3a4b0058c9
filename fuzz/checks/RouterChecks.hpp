#pragma once

// The router's invariants under any sequence of lines, shared by the fuzz target and the replay.
// Input: byte 0's bit 0 says whether the fake gateway allows its first decision (it then
// alternates); the rest is split at LF into lines, a leading '<' marking a server line.
// - every write is one whole line; a server line goes to the client byte for byte, unasked;
// - a client line reaches the server only byte for byte, once, after at most one query; nothing a
//   server could read as a tools/call with an id (exact or Go-folded names, first or last duplicate
//   winning, each batch element, each piece between CRs) reaches it without an allow for the line;
// - a refused request with an id gets one answer; an object that is no tools/call is relayed; a
//   call with a progress token gets heartbeats while decided, and no timer outlives its call.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "MCPBridgeCore/BridgeScheduler.hpp"
#include "MCPBridgeCore/ClientLineReadings.hpp"
#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "MCPBridgeCore/MCPBridgeRouter.hpp"

namespace sentrova::fuzzcheck {

struct FakeTimer final : BridgeCancellable {
    std::function<void()> action;
    bool cancelled = false;
    void cancel() override { cancelled = true; }
};

// Decides inline, alternating; every armed heartbeat fires while a decision is pending.
struct FakeGatewayAndScheduler final : BridgeGatewayClient, BridgeScheduler {
    explicit FakeGatewayAndScheduler(bool allowFirst) : allow(!allowFirst) {}
    std::shared_ptr<BridgeCancellable> scheduleRepeating(double, std::function<void()> action) override {
        timers.push_back(std::make_shared<FakeTimer>());
        timers.back()->action = std::move(action);
        return timers.back();
    }
    BridgeDecision requestDecision(const BridgeToolCallQuery&) override {
        for (const auto& timer : std::vector(timers)) if (!timer->cancelled) timer->action();
        ++queries;
        allow = !allow;
        return allow ? BridgeDecision::allow() : BridgeDecision::deny("fuzz says no");
    }
    void postEvent(const BridgeEvent&) override {}
    std::vector<std::shared_ptr<FakeTimer>> timers;
    std::size_t queries = 0;
    bool allow;
};

// Go matches names case-insensitively under simple folding: U+017F (long s) is 's', U+212A 'k'.
inline std::string goFold(std::string_view key) {
    std::string out;
    for (std::size_t i = 0; i < key.size(); ++i) {
        if (key.substr(i, 2) == "\xC5\xBF") out.push_back('S'), i += 1;
        else if (key.substr(i, 3) == "\xE2\x84\xAA") out.push_back('K'), i += 2;
        else out.push_back(key[i] >= 'a' && key[i] <= 'z' ? static_cast<char>(key[i] - 32) : key[i]);
    }
    return out;
}

// Whether some reading of the text finds a tools/call (with an id). A call also counts when any
// member spelled as "method" under folding says "tools/call": the bridge refuses such a line
// even where no reading lands on that member (it answers it, so nothing is lost in silence).
inline void findCalls(std::string_view text, bool& call, bool& callWithID) {
    const std::optional<Json> value = parseJson(text);
    if (!value) return;
    std::vector<Json> messages{*value};
    if (value->isArray()) for (const Json& e : value->arrayValue()) messages.push_back(e);
    for (const Json& message : messages) {
        if (!message.isObject()) continue;
        for (const auto& m : message.objectValue()) {
            call = call || (goFold(m.key) == "METHOD" && m.value.isString() && m.value.stringValue() == "tools/call");
        }
        for (const bool fold : {false, true}) {
            for (const bool firstWins : {false, true}) {
                const auto member = [&](std::string_view name) {
                    std::optional<Json> found;
                    for (const auto& m : message.objectValue()) {
                        if ((fold ? goFold(m.key) == goFold(name) : m.key == name) && !(found && firstWins)) found = m.value;
                    }
                    return found;
                };
                const std::optional<Json> method = member("method");
                if (!method || !method->isString() || method->stringValue() != "tools/call") continue;
                call = true;
                callWithID = callWithID || member("id").has_value();
            }
        }
    }
}

struct RecordedWrite {
    bool toServer;
    std::string bytes;
};
inline std::string checkClientLine(const std::string& line, const std::vector<RecordedWrite>& writes, std::size_t asked,
                                   bool allowed) {
    std::size_t toServer = 0, answers = 0, results = 0, heartbeats = 0;
    for (const auto& w : writes) {
        if (w.bytes.size() < 2 || w.bytes.find('\n') != w.bytes.size() - 1) return "a write that is not one whole line";
        if (w.toServer && ++toServer && w.bytes != line + "\n") return "the server received other bytes than the client's line";
        const std::optional<Json> sent = w.toServer ? Json::object({}) : parseJson(w.bytes);
        if (!sent || !sent->isObject()) return "the bridge wrote the client something unreadable";
        answers += sent->find("result") || sent->find("error");
        results += sent->find("result").has_value();
        heartbeats += sent->find("method").has_value();
    }
    if (toServer > 1 || asked > 1) return "one client line relayed or put to the gateway twice";
    const bool relayed = toServer == 1;
    bool call = false, callWithID = false, hidden = false, hiddenWithID = false;
    findCalls(line, call, callWithID);
    // A last CR ends the line for every reader alike.
    const std::string_view body = std::string_view(line).substr(0, line.size() - (line.back() == '\r' ? 1 : 0));
    for (std::size_t s = 0, e = 0; body.find('\r') != body.npos && e != body.npos; s = e + 1) {
        e = body.find('\r', s);
        findCalls(body.substr(s, e - s), hidden, hiddenWithID);
    }
    if (relayed && (hidden || (callWithID && !(asked == 1 && allowed)))) return "a tools/call reached the server without an allow";

    // A line the bridge reads as one object but does not relay is a call it refused: answered once
    // when some reading finds an id in it, else not at all (a CR reader may find more).
    const std::optional<Json> object = parseJson(line);
    if (!relayed && object && object->isObject()) {
        bool idLike = false;
        for (const auto& m : object->objectValue()) idLike = idLike || goFold(m.key) == "ID";
        if (!call && !hidden) return "an object that is no tools/call was not relayed";
        if (!hidden && results != (idLike ? 1u : 0u)) return "a refused call got other than one answer";
    }
    const ClientLineReadings::Answer reading = ClientLineReadings::read(line);
    if (!reading.message && (relayed || asked)) return "a refused line reached the server or the gateway";
    if (!reading.message && answers != reading.refused.size()) return "a refused line's requests were not answered once per id";
    const std::optional<Json> params = object ? object->find("params") : std::nullopt;
    const std::optional<Json> meta = params ? params->find("_meta") : std::nullopt;
    const std::optional<Json> token = meta ? meta->find("progressToken") : std::nullopt;
    if (asked && token && (token->isString() || token->isNumber()) && !heartbeats) return "a call waiting on the gateway got no heartbeat";
    return {};
}

inline std::string checkRouterInput(std::string_view data) {
    if (data.empty()) return {};
    auto fake = std::make_shared<FakeGatewayAndScheduler>((data[0] & 1) != 0);
    std::vector<RecordedWrite> writes;
    auto router = std::make_shared<MCPBridgeRouter>(MCPBridgeRouter::Config{"fuzz-worker", std::nullopt, "fuzz server", 1.0},
        [&](std::string_view b) { writes.push_back({false, std::string(b)}); },
        [&](std::string_view b) { writes.push_back({true, std::string(b)}); }, fake, fake);
    for (std::size_t start = 1; start <= data.size();) {
        const std::size_t end = std::min(data.find('\n', start), data.size());
        std::string line(data.substr(start, end - start));
        start = end + 1;
        const bool fromServer = !line.empty() && line[0] == '<';
        if (fromServer) line.erase(0, 1);
        if (line.empty()) continue; // the line pump never delivers these
        writes.clear();
        const std::size_t before = fake->queries;
        fromServer ? router->handleServerLine(line) : router->handleClientLine(line);
        const bool relayedAsIs = fake->queries == before && writes.size() == 1 && writes[0].bytes == line + "\n";
        std::string fault = !fromServer ? checkClientLine(line, writes, fake->queries - before, fake->allow)
                            : relayedAsIs && !writes[0].toServer ? "" : "a server line was not relayed to the client as it was";
        for (const auto& timer : fake->timers) {
            if (fault.empty() && !timer->cancelled) fault = "a heartbeat timer outlived its call";
        }
        if (!fault.empty()) return fault + " (" + (fromServer ? "server" : "client") + " line: " + line + ")";
    }
    return {};
}

} // namespace sentrova::fuzzcheck
