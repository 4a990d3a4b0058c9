#include "MCPBridgeCore/MCPBridgeContract.hpp"
#include "MCPBridgeCore/Utf8.hpp"

#include <utility>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

namespace {

constexpr std::string_view kEmptyBody = "{}";

// Bodies go through the canonical writer so that member order and escaping match every
// other JSON the bridge writes; a failed write gives the fixed "{}" body.
std::string writeBody(Json::Object members) {
    std::optional<std::string> text = writeJson(Json::object(std::move(members)));
    return text ? std::move(*text) : std::string(kEmptyBody);
}

JsonMember stringMember(std::string key, const std::string& value) {
    return JsonMember{std::move(key), Json::string(value)};
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
    Json::Object members;
    members.reserve(10);
    members.push_back(stringMember("argumentsJSON", argumentsJSON));
    members.push_back(JsonMember{"pinChanged", Json::boolean(pinChanged)});
    members.push_back(stringMember("pinHash", pinHash));
    if (previousPinHash) members.push_back(stringMember("previousPinHash", *previousPinHash));
    if (provider) members.push_back(stringMember("provider", *provider));
    members.push_back(stringMember("requestID", requestID));
    members.push_back(stringMember("risk", std::string(rawValue(risk))));
    members.push_back(stringMember("serverCommand", serverCommand));
    members.push_back(stringMember("tool", tool));
    members.push_back(stringMember("workerName", workerName));
    return writeBody(std::move(members));
}

BridgeDecision BridgeDecision::parse(std::string_view responseBody) {
    const auto unreadable = [] { return deny(std::string(GatewayDenyReason::unreadableVerdict)); };

    std::optional<Json> verdict = parseJson(responseBody);
    if (!verdict || !verdict->isObject() || verdict->objectValue().empty()) return unreadable();

    // A verdict that readers could take either way ("decision" twice, or also as "Decision",
    // which a case-insensitive reader takes for it) is no verdict.
    const Json* decision = nullptr;
    static const std::string kFolded = foldedName("decision");
    for (const JsonMember& member : verdict->objectValue()) {
        if (member.key.size() < 8 || member.key.size() > 24 || foldedName(member.key) != kFolded) continue;
        if (decision != nullptr || member.key != "decision") return unreadable();
        decision = &member.value;
    }
    if (decision == nullptr || !decision->isString()) return unreadable();
    if (decision->stringValue() == "allow") return allow();

    // Any other string is a deny; only a string reason is passed on, even an empty one.
    const Json* reason = verdict->find("reason");
    if (reason != nullptr && reason->isString()) return deny(reason->stringValue());
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
    Json::Object members;
    if (const auto* shot = std::get_if<Screenshot>(&payload_)) {
        members.push_back(stringMember("base64", shot->base64));
        members.push_back(stringMember("kind", "screenshot"));
        members.push_back(stringMember("mimeType", shot->mimeType));
        members.push_back(stringMember("workerName", shot->workerName));
    } else if (const auto* violation = std::get_if<PinViolation>(&payload_)) {
        members.push_back(stringMember("kind", "pinViolation"));
        members.push_back(stringMember("pinHash", violation->pinHash));
        members.push_back(stringMember("previousPinHash", violation->previousPinHash));
        members.push_back(stringMember("tool", violation->tool));
        members.push_back(stringMember("workerName", violation->workerName));
    }
    return writeBody(std::move(members));
}

std::shared_ptr<BridgeCancellable> BridgeGatewayClient::startDecision(const BridgeToolCallQuery& query,
                                                                     DecisionHandler onDecision) {
    onDecision(requestDecision(query));
    return nullptr;
}

} // namespace sentrova
