#pragma once

// Pins of announced tool definitions and the pins under which tools were last approved.

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

class ToolPinTable {
public:
    struct ToolPin {
        std::string hash;
        BridgeRisk risk = BridgeRisk::caution;
        friend bool operator==(const ToolPin&, const ToolPin&) = default;
    };
    struct PinStatus {
        bool pinChanged = false;
        std::optional<std::string> previous;
        friend bool operator==(const PinStatus&, const PinStatus&) = default;
    };

    // Records pin and risk of every named tool of a tools/list answer's "tools" array; clears the stale flag.
    void capture(const Json& toolsList); // a tools/list answer's "tools" array
    std::optional<ToolPin> pin(const std::string& name) const;
    PinStatus pinStatus(const std::string& name, const std::string& currentHash) const;
    void approve(const std::string& tool, const std::string& hash);
    void markStale();

private:
    mutable std::mutex lock_;
    std::unordered_map<std::string, ToolPin> baseline_;
    std::unordered_map<std::string, std::string> approvedHash_;
    bool staleFlag_ = false;
};

} // namespace sentrova
