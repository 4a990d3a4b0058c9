#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "MCPBridgeCore/Utf8.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

namespace {

// A member of a request body: a string, or a boolean when text is unset.
struct BodyMember {
    std::string_view key;
    std::optional<std::string_view> text;
    bool flag = false;
};

// Bodies are flat objects, written as the canonical writer writes any object (keys sorted,
// same escaping), straight from the fields: a call's arguments are copied once, into the body.
std::string writeBody(std::vector<BodyMember> members) {
    std::stable_sort(members.begin(), members.end(),
                     [](const BodyMember& a, const BodyMember& b) { return jsonKeyLess(a.key, b.key); });
    std::size_t size = 2;
    for (const BodyMember& member : members) size += member.key.size() + (member.text ? member.text->size() : 5) + 8;
    std::string out;
    out.reserve(size);
    out.push_back('{');
    for (const BodyMember& member : members) {
        if (out.size() > 1) out.push_back(',');
        appendJsonString(out, member.key);
        out.push_back(':');
        if (member.text) {
            appendJsonString(out, *member.text);
        } else {
            out.append(member.flag ? "true" : "false");
        }
    }
    out.push_back('}');
    return out;
}

} // namespace

std::string_view rawValue(BridgeRisk risk) noexcept {
    switch (risk) {
    case BridgeRisk::safe: return "safe";
    case BridgeRisk::caution: return "caution";
    case BridgeRisk::critical: return "critical";
    }
    return "critical";
}

std::optional<BridgeRisk> bridgeRiskFromRawValue(std::string_view raw) noexcept {
    for (BridgeRisk risk : {BridgeRisk::safe, BridgeRisk::caution, BridgeRisk::critical}) {
        if (raw == rawValue(risk)) return risk;
    }
    return std::nullopt;
}

std::string BridgeToolCallQuery::httpBody() const {
    std::vector<BodyMember> members{{"argumentsJSON", argumentsJSON}, {"pinChanged", std::nullopt, pinChanged},
                                    {"pinHash", pinHash},             {"requestID", requestID},
                                    {"risk", rawValue(risk)},         {"serverCommand", serverCommand},
                                    {"tool", tool},                   {"workerName", workerName}};
    if (previousPinHash) members.push_back({"previousPinHash", *previousPinHash});
    if (provider) members.push_back({"provider", *provider});
    return writeBody(std::move(members));
}

BridgeDecision BridgeDecision::parse(std::string_view responseBody) {
    const auto unreadable = [] { return deny(std::string(GatewayDenyReason::unreadableVerdict)); };

    std::optional<Json> verdict = parseJson(responseBody);
    if (!verdict || !verdict->isObject() || verdict->objectValue().empty()) return unreadable();

    // A verdict that readers could take either way ("decision" twice, or also as "Decision",
    // which a case-insensitive reader takes for it) is no verdict.
    std::optional<Json> decision;
    static const std::string kFolded = foldedName("decision");
    for (const JsonMemberView member : verdict->objectValue()) {
        if (member.key.size() < 8 || member.key.size() > 24 || foldedName(member.key) != kFolded) continue;
        if (decision || member.key != "decision") return unreadable();
        decision = member.value;
    }
    if (!decision || !decision->isString()) return unreadable();
    if (decision->stringValue() == "allow") return allow();

    // Any other string is a deny; only a string reason is passed on, even an empty one.
    const std::optional<Json> reason = verdict->find("reason");
    if (reason && reason->isString()) return deny(std::string(reason->stringValue()));
    return deny(std::string(GatewayDenyReason::policyDefault));
}

BridgeEvent BridgeEvent::screenshot(std::string workerName, std::string base64, std::string mimeType) {
    return BridgeEvent(Screenshot{std::move(workerName), std::move(base64), std::move(mimeType)});
}

BridgeEvent BridgeEvent::pinViolation(std::string workerName, std::string tool, std::string previousPinHash,
                                      std::string pinHash) {
    return BridgeEvent(
        PinViolation{std::move(workerName), std::move(tool), std::move(previousPinHash), std::move(pinHash)});
}

std::string BridgeEvent::httpBody() const {
    std::vector<BodyMember> members;
    if (const auto* shot = std::get_if<Screenshot>(&payload_)) {
        members.push_back(BodyMember{"base64", shot->base64});
        members.push_back(BodyMember{"kind", "screenshot"});
        members.push_back(BodyMember{"mimeType", shot->mimeType});
        members.push_back(BodyMember{"workerName", shot->workerName});
    } else if (const auto* violation = std::get_if<PinViolation>(&payload_)) {
        members.push_back(BodyMember{"kind", "pinViolation"});
        members.push_back(BodyMember{"pinHash", violation->pinHash});
        members.push_back(BodyMember{"previousPinHash", violation->previousPinHash});
        members.push_back(BodyMember{"tool", violation->tool});
        members.push_back(BodyMember{"workerName", violation->workerName});
    }
    return writeBody(std::move(members));
}

std::shared_ptr<BridgeCancellable> BridgeGatewayClient::startDecision(const BridgeToolCallQuery& query,
                                                                     DecisionHandler onDecision) {
    onDecision(requestDecision(query));
    return nullptr;
}

} // namespace sentrova
