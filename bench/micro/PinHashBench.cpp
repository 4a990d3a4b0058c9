#include <benchmark/benchmark.h>

#include <string>

#include "MCPBridgeCore/Json.hpp"
#include "MCPBridgeCore/MCPWire.hpp"
#include "MCPBridgeCore/ToolPinTable.hpp"

namespace {

// A typical announced tool: about 1 KB, most of it the input schema.
constexpr std::string_view kTypicalDefinition = R"({
  "name": "search_files",
  "title": "Search files",
  "description": "Recursively search for files and directories matching a pattern under /workspace. Returns full paths of all matching items. Great for finding files when you don't know their exact location.",
  "inputSchema": {
    "type": "object",
    "properties": {
      "path": {"type": "string", "description": "Directory to start from, e.g. /workspace/src"},
      "pattern": {"type": "string", "description": "Glob pattern such as **/*.ts"},
      "excludePatterns": {"type": "array", "items": {"type": "string"}, "default": []},
      "maxResults": {"type": "integer", "minimum": 1, "maximum": 10000, "default": 200},
      "caseSensitive": {"type": "boolean", "default": false},
      "followSymlinks": {"type": "boolean", "default": false},
      "includeHidden": {"type": "boolean", "default": false}
    },
    "required": ["path", "pattern"],
    "additionalProperties": false,
    "$schema": "http://json-schema.org/draft-07/schema#"
  },
  "annotations": {"readOnlyHint": true, "destructiveHint": false, "openWorldHint": false}
})";

sentrova::Json typicalDefinition() {
    std::optional<sentrova::Json> value = sentrova::parseJson(kTypicalDefinition);
    return value ? std::move(*value) : sentrova::Json::object();
}

void BM_PinHashTypicalDefinition(benchmark::State& state) {
    const sentrova::Json definition = typicalDefinition();
    for (auto _ : state) {
        std::string pin = sentrova::MCPWire::pinHash(definition);
        benchmark::DoNotOptimize(pin);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(kTypicalDefinition.size()));
}
BENCHMARK(BM_PinHashTypicalDefinition);

// One tools/list answer of 40 such tools captured into the table (pins and risks under the lock).
void BM_CaptureFortyTools(benchmark::State& state) {
    sentrova::Json::Array tools;
    for (int i = 0; i < 40; ++i) {
        sentrova::Json::Object members;
        for (const sentrova::JsonMemberView member : typicalDefinition().objectValue()) {
            members.push_back({std::string(member.key),
                               member.key == "name" ? sentrova::Json::string("tool_" + std::to_string(i)) : member.value});
        }
        tools.push_back(sentrova::Json::object(members));
    }
    const sentrova::Json list = sentrova::Json::array(tools);
    sentrova::ToolPinTable table;
    for (auto _ : state) table.capture(list);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * 40);
}
BENCHMARK(BM_CaptureFortyTools);

} // namespace
