#pragma once

// Pure readers and builders of MCP JSON fragments.

#include <cstdint>
#include <optional>
#include <string>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova::MCPWire {

// Request-id key: "s:" + string, "n:" + decimal text for numbers (booleans as 1/0); nullopt otherwise.
std::optional<std::string> idKey(const Json& id);

// A value read as a boolean: true/false, or a number exactly 1 or 0; nullopt otherwise.
std::optional<bool> readBoolean(const Json* value);

// Risk floor of a tool's annotations object (nullptr when the tool has none).
BridgeRisk riskFloor(const Json* annotations);

struct ImageBlock {
    std::string base64;
    std::string mimeType;
    friend bool operator==(const ImageBlock&, const ImageBlock&) = default;
};
// The first image block of a tool result object.
std::optional<ImageBlock> firstImageBlock(const Json& result);

// The bridge's own answer to a refused call (no trailing newline).
std::string denyResult(const Json& id, const std::string& message);

// A notifications/progress message (no trailing newline).
std::string progressNotification(const Json& progressToken, std::int64_t progress, const std::string& message);

// SHA-256 (lower-case hex) of the pinned part of a tool definition; "" when it cannot be written.
std::string pinHash(const Json& tool);

} // namespace sentrova::MCPWire
