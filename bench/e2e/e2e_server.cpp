// A trivial MCP server for the start-up and tool-call measurements: answers initialize, tools/list,
// tools/call, ping and any other request at once, ignores notifications. It only reads the lines
// the benchmark driver writes, so a plain search for "id" and "method" is enough.
// Usage: e2e_server

#include <string>
#include <vector>

#include "BenchSupport.hpp"

using namespace sentrova::bench;

namespace {

// The raw text of a top-level member's value: a string with its quotes, or a number.
std::string_view memberText(std::string_view line, std::string_view key) {
    std::string pattern = "\"" + std::string(key) + "\":";
    size_t at = line.find(pattern);
    if (at == std::string_view::npos) return {};
    size_t begin = at + pattern.size();
    size_t end = begin;
    if (end < line.size() && line[end] == '"') {
        end = line.find('"', begin + 1);
        if (end == std::string_view::npos) return {};
        ++end;
    } else {
        while (end < line.size() && line[end] != ',' && line[end] != '}') ++end;
    }
    return line.substr(begin, end - begin);
}

std::string resultFor(std::string_view method) {
    if (method == "\"initialize\"")
        return R"({"protocolVersion":"2025-06-18","capabilities":{"tools":{"listChanged":false}},)"
               R"("serverInfo":{"name":"e2e-server","version":"1.0.0"}})";
    if (method == "\"tools/list\"")
        return R"({"tools":[{"name":"echo","description":"Answers at once.",)"
               R"("inputSchema":{"type":"object","properties":{"text":{"type":"string"}}}}]})";
    if (method == "\"tools/call\"") return R"({"content":[{"type":"text","text":"ok"}],"isError":false})";
    return "{}";
}

void answer(std::string_view line) {
    std::string_view id = memberText(line, "id");
    std::string_view method = memberText(line, "method");
    if (id.empty() || method.empty()) return; // a notification or an answer: nothing to say
    std::string out = "{\"jsonrpc\":\"2.0\",\"id\":" + std::string(id) + ",\"result\":" + resultFor(method) + "}\n";
    writeAll(1, out);
}

} // namespace

int main() {
    std::vector<char> buffer(1 << 16);
    std::string pending;
    for (;;) {
        ssize_t n = ::read(0, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        pending.append(buffer.data(), size_t(n));
        size_t start = 0;
        for (size_t lf; (lf = pending.find('\n', start)) != std::string::npos; start = lf + 1)
            answer(std::string_view(pending).substr(start, lf - start));
        pending.erase(0, start);
    }
    return 0;
}
