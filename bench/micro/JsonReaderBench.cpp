// Throughput of the JSON reader and the canonical writer on the line shapes that dominate the
// relay: small requests and answers (most lines), a small tools/call request, a tools/list answer,
// and a result carrying a screenshot.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "MCPBridgeCore/ClientLineReadings.hpp"
#include "MCPBridgeCore/Json.hpp"

namespace {

std::string toolsCallRequest() {
    // About 300 bytes, as an agent sends them.
    return R"({"jsonrpc":"2.0","id":42,"method":"tools/call","params":{"name":"write_file","arguments":{"path":"/home/user/project/src/main.cpp","content":"#include <cstdio>\nint main() { std::puts(\"hello\"); }\n","mode":"overwrite","createDirectories":true},"_meta":{"progressToken":"c0ffee-17"}}})";
}

// About 115 bytes each: the bulk of what a session relays.
std::string smallRequest() {
    return R"({"jsonrpc":"2.0","id":4711,"method":"resources/read","params":{"uri":"file:///workspace/src/mod_004711/notes.md"}})";
}

std::string smallAnswer() {
    return R"({"jsonrpc":"2.0","id":4711,"result":{"contents":[{"uri":"file:///w/m004711.md","mimeType":"text/plain","text":"ok"}]}})";
}

std::string toolDefinition(int index) {
    const std::string n = std::to_string(index);
    return R"({"name":"tool_)" + n + R"(","title":"Tool number )" + n +
           R"(","description":"Performs operation )" + n +
           R"( on the workspace. Reads the files under the given path, applies the requested change and reports a summary of what was done, including any warnings. Paths are resolved relative to the project root; symbolic links are followed. Large directories are processed in batches so that memory stays bounded, and the operation stops early when the limit is reached; in that case the summary names the first path that was not visited.","inputSchema":{"type":"object","properties":{"path":{"type":"string","description":"Path of the file or directory to operate on, relative to the project root."},"recursive":{"type":"boolean","description":"Descend into sub-directories.","default":false},"maxDepth":{"type":"integer","minimum":0,"maximum":64,"default":8},"pattern":{"type":"string","description":"Glob pattern that selects the files to include, for example src/**/*.cpp or docs/*.md."},"encoding":{"type":"string","enum":["utf-8","latin-1","utf-16le"],"default":"utf-8"},"limit":{"type":"integer","minimum":1,"maxLength":10000}},"required":["path"],"additionalProperties":false},"annotations":{"readOnlyHint":)" +
           (index % 3 == 0 ? "true" : "false") + R"(,"destructiveHint":false,"idempotentHint":true,"openWorldHint":false}})";
}

// About 50 KB: 40 tool definitions of about 1.2 KB each.
std::string toolsListAnswer() {
    std::string text = R"({"jsonrpc":"2.0","id":1,"result":{"tools":[)";
    for (int i = 0; i < 40; ++i) {
        if (i != 0) text += ',';
        text += toolDefinition(i);
    }
    text += R"(],"nextCursor":"page-2"}})";
    return text;
}

std::string imageResult() {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string data(4 << 20, 'A');
    std::uint32_t state = 12345;
    for (char& c : data) {
        state = state * 1664525u + 1013904223u;
        c = kAlphabet[state >> 26];
    }
    return R"({"jsonrpc":"2.0","id":1,"result":{"content":[{"type":"image","data":")" + data +
           R"(","mimeType":"image/png"}]}})";
}

void readLine(benchmark::State& state, const std::string& line) {
    for (auto _ : state) {
        auto value = sentrova::parseJson(line);
        benchmark::DoNotOptimize(value);
        if (!value) state.SkipWithError("line refused");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(line.size()));
}

// What the bridge does with each client line before it relays it: read it and check it for
// member names that other parsers would read differently.
void readAndGuard(benchmark::State& state, const std::string& line) {
    for (auto _ : state) {
        auto answer = sentrova::ClientLineReadings::read(line);
        if (!answer.message) state.SkipWithError("line refused");
        benchmark::DoNotOptimize(answer);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(line.size()));
}

void writeValue(benchmark::State& state, const std::string& line, bool escapeSlash) {
    const auto value = sentrova::parseJson(line);
    for (auto _ : state) {
        auto text = sentrova::writeJson(*value, sentrova::JsonWriteOptions{escapeSlash});
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(line.size()));
}

void copyValue(benchmark::State& state, const std::string& line) {
    const auto value = sentrova::parseJson(line);
    for (auto _ : state) {
        sentrova::Json copy = *value;
        benchmark::DoNotOptimize(copy);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(line.size()));
}

void BM_JsonRead_SmallRequest(benchmark::State& state) { readLine(state, smallRequest()); }
void BM_JsonRead_SmallAnswer(benchmark::State& state) { readLine(state, smallAnswer()); }
void BM_JsonReadGuard_SmallRequest(benchmark::State& state) { readAndGuard(state, smallRequest()); }
void BM_JsonReadGuard_ToolsCallRequest(benchmark::State& state) { readAndGuard(state, toolsCallRequest()); }
void BM_JsonRead_ToolsCallRequest(benchmark::State& state) { readLine(state, toolsCallRequest()); }
void BM_JsonRead_ToolsListAnswer(benchmark::State& state) { readLine(state, toolsListAnswer()); }
void BM_JsonRead_ImageResult(benchmark::State& state) {
    static const std::string line = imageResult();
    readLine(state, line);
}
void BM_JsonWrite_ToolsCallRequest(benchmark::State& state) { writeValue(state, toolsCallRequest(), false); }
void BM_JsonWrite_ToolsListAnswerEscapedSlash(benchmark::State& state) { writeValue(state, toolsListAnswer(), true); }
void BM_JsonCopy_ToolsListAnswer(benchmark::State& state) { copyValue(state, toolsListAnswer()); }

} // namespace

BENCHMARK(BM_JsonRead_SmallRequest);
BENCHMARK(BM_JsonRead_SmallAnswer);
BENCHMARK(BM_JsonReadGuard_SmallRequest);
BENCHMARK(BM_JsonReadGuard_ToolsCallRequest);
BENCHMARK(BM_JsonRead_ToolsCallRequest);
BENCHMARK(BM_JsonRead_ToolsListAnswer);
BENCHMARK(BM_JsonRead_ImageResult);
BENCHMARK(BM_JsonWrite_ToolsCallRequest);
BENCHMARK(BM_JsonWrite_ToolsListAnswerEscapedSlash);
BENCHMARK(BM_JsonCopy_ToolsListAnswer);
