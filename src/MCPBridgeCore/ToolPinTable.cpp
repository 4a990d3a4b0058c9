#include "MCPBridgeCore/ToolPinTable.hpp"

#include "MCPBridgeCore/MCPWire.hpp"

namespace sentrova {

void ToolPinTable::capture(const Json& toolsList) {
    // Pins are computed under the lock on purpose: a lookup that arrives while an answer is
    // being captured waits for the whole answer, never sees half of it.
    std::lock_guard guard(lock_);
    for (const Json& tool : toolsList.arrayValue()) {
        if (!tool.isObject() || tool.objectValue().empty()) continue;
        const std::optional<Json> name = tool.find("name");
        if (!name || !name->isString()) continue;

        std::optional<Json> annotations = tool.find("annotations");
        if (annotations && !annotations->isObject()) annotations.reset();

        // Later entries with the same name replace earlier ones; tools missing from this
        // answer keep what an earlier answer recorded.
        baseline_[std::string(name->stringValue())] = ToolPin{MCPWire::pinHash(tool), MCPWire::riskFloor(annotations)};
    }
    staleFlag_ = false;
}

std::optional<ToolPinTable::ToolPin> ToolPinTable::pin(const std::string& name) const {
    std::lock_guard guard(lock_);
    auto entry = baseline_.find(name);
    if (entry == baseline_.end()) return std::nullopt;
    return entry->second;
}

ToolPinTable::PinStatus ToolPinTable::pinStatus(const std::string& name, const std::string& currentHash) const {
    std::lock_guard guard(lock_);
    auto entry = approvedHash_.find(name);
    // Never approved, or approved under this very pin: nothing changed.
    if (entry == approvedHash_.end() || entry->second == currentHash) return PinStatus{};
    return PinStatus{true, entry->second};
}

void ToolPinTable::approve(const std::string& tool, const std::string& hash) {
    std::lock_guard guard(lock_);
    approvedHash_[tool] = hash;
}

void ToolPinTable::markStale() {
    std::lock_guard guard(lock_);
    staleFlag_ = true;
}

} // namespace sentrova
