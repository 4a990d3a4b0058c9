#pragma once

// Pure readers and builders of MCP JSON fragments.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova::MCPWire {

// Request-id key: "s:" + string, "n:" + decimal text for numbers (booleans as 1/0); nullopt otherwise.
std::optional<std::string> idKey(const Json& id);

// The keys under which a server's answer with this id answers a pending request: its own key
// and, for a string that JavaScript's Number() reads as a number (" 1", "1.0", "0x1"), that
// number's key, since clients built on the TypeScript SDK match answers by Number(id).
std::vector<std::string> answerKeys(const Json& id);

// Whether a tools/call can be put to the gateway exactly as the server will act on it, and the
// arguments text the gateway then sees.
struct ToolCallReading {
    enum class Outcome {
        ask,     // put it to the gateway
        refuse,  // answer with the malformed deny
        drop,    // refuse without an answer: the id cannot be written back (NaN, an infinity)
    };
    Outcome outcome = Outcome::refuse;
    std::string argumentsText;
    std::optional<Json> progressToken; // a string or number token to echo in heartbeats, or none
};
// Refused: arguments present but neither an object nor an array; arguments holding NaN, an
// infinity or a number beyond the double range; any object in them with two member names that
// Go's folding takes for one; a progress token that cannot be written back.
ToolCallReading readToolCall(const Json& message);

// A value read as a boolean: true/false, or a number exactly 1 or 0; nullopt otherwise.
std::optional<bool> readBoolean(const std::optional<Json>& value);

// Risk floor of a tool's annotations object (nullopt when the tool has none).
BridgeRisk riskFloor(const std::optional<Json>& annotations);

struct ImageBlock {
    std::string base64;
    std::string mimeType;
    friend bool operator==(const ImageBlock&, const ImageBlock&) = default;
};
// The first image block of a tool result object.
std::optional<ImageBlock> firstImageBlock(const Json& result);

// The bridge's own answer to a refused call (no trailing newline).
std::string denyResult(const Json& id, const std::string& message);

// The JSON-RPC "Invalid Request" error for a request the bridge refuses to relay (no newline).
std::string invalidRequest(const Json& id);

// A notifications/progress message (no trailing newline).
std::string progressNotification(const Json& progressToken, std::int64_t progress, const std::string& message);

// SHA-256 (lower-case hex) of the pinned part of a tool definition; "" when it cannot be written.
std::string pinHash(const Json& tool);

} // namespace sentrova::MCPWire
