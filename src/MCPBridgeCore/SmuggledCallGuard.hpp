#pragma once

// Finds tool calls that a server would read out of a client line which the bridge reads
// differently. The bridge frames on LF alone and reads one JSON text per line; servers do not
// all agree:
//  - Python's text streams end a line at a lone CR as well, so "{ping}\r{tools/call}" is two
//    messages there, and so is a CR inside an object that the bridge reads as one message;
//  - stream decoders (Go's json.Decoder) read several JSON texts one after the other from one
//    line, "{ping} {tools/call}";
//  - json.loads on raw bytes detects UTF-16 and UTF-32, so a line in those encodings, which is
//    no JSON at all to the bridge, is a message there.
// Such a line holding a tool call must never reach the server: the bridge cannot put "the"
// call to the gateway when the server would run something else as well.

#include <string_view>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova::SmuggledCallGuard {

struct Verdict {
    bool smuggled = false;
    // The ids of the hidden tool calls that carry one, in reading order, each once.
    std::vector<Json> ids;
};

// line: one client line as framed by the bridge. readsAsOneText: whether the bridge's reader
// took the whole line as one JSON text. Cheap for ordinary lines (no CR inside, one text).
Verdict inspect(std::string_view line, bool readsAsOneText);

} // namespace sentrova::SmuggledCallGuard
