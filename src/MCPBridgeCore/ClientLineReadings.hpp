#pragma once

// Which requests could any known server reader take out of one client line?
//
// The bridge relays a client line only when every server reader takes out of it what the bridge
// itself reads: one complete JSON object or array, which the router then handles. Readers that
// servers really use disagree with a plain line reading in many ways:
//  - Python's text streams end a line at a lone CR too, so "{ping}\r{tools/call}" is two messages;
//  - stream decoders (Go's json.Decoder) read several JSON texts from one line, and one text
//    across several lines, so a call may be split over lines that each read as nothing;
//  - json.loads on raw bytes detects UTF-16 and UTF-32;
//  - lenient readers (Kotlin's) retry a line from its first "{" and accept unquoted keys;
//  - Go matches member names under Unicode simple case folding, the last match winning, so
//    {"method":"tools/list","Method":"tools/call"} is a tool call there;
//  - several SDKs execute every element of a batch.
// A line that is not relayed reaches no server. Every request with an id that some reading finds
// in it still gets an answer, so that no client waits for ever: a tool call the malformed deny,
// any other request a JSON-RPC "Invalid Request" error. The work is linear in the line's size.

#include <optional>
#include <string_view>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova::ClientLineReadings {

struct FoundRequest {
    Json id;
    bool toolCall = false;
};

struct Answer {
    // Set when the line may be relayed: the bridge's own reading of it (an object or an array).
    std::optional<Json> message;
    // For a line that is not relayed: the requests to answer, each id once, in reading order.
    std::vector<FoundRequest> refused;
};

Answer read(std::string_view line);

// True when some spelling of "method" (under Go's folding) names "tools/call" in this object.
bool callsTool(const Json& message);

} // namespace sentrova::ClientLineReadings
