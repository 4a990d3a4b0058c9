#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "MCPBridgeCore/HTTPBridgeGatewayClient.hpp"

namespace {

using Clock = std::chrono::steady_clock;

// A loopback gateway that allows every call at once.
class AllowingGateway {
public:
    AllowingGateway() {
        server_.set_keep_alive_max_count(1'000'000);
        server_.set_tcp_nodelay(true);
        server_.Post("/v1/toolcall", [](const httplib::Request&, httplib::Response& response) {
            response.set_content(R"({"decision":"allow"})", "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
    }
    ~AllowingGateway() {
        server_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

sentrova::BridgeToolCallQuery typicalQuery() {
    sentrova::BridgeToolCallQuery query;
    query.workerName = "bench-worker";
    query.serverCommand = "npx -y @modelcontextprotocol/server-filesystem /workspace";
    query.tool = "read_file";
    query.argumentsJSON = R"({"path":"/workspace/src/main.cpp"})";
    query.risk = sentrova::BridgeRisk::caution;
    query.pinHash = std::string(64, 'a');
    query.requestID = "5B1F8E0C-2D1A-4E7B-9C55-0F3A2B6D7E81";
    return query;
}

// One decision at a time over the reused connection, as the client-input pump asks them.
// Reports the median and the 99th percentile of the round trip in microseconds.
void BM_GatewayDecisionRoundTrip(benchmark::State& state) {
    for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) ::unsetenv(name);
    AllowingGateway gateway;
    sentrova::HTTPBridgeGatewayClient client(*sentrova::GatewayEndpoint::parse(gateway.url()), "bench-token", 10);
    const auto query = typicalQuery();
    const int calls = static_cast<int>(state.range(0));
    for (int i = 0; i < 50; ++i) client.requestDecision(query); // connection set up, caches warm

    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(calls) * 4);
    int denied = 0;
    for (auto _ : state) {
        for (int i = 0; i < calls; ++i) {
            auto start = Clock::now();
            auto decision = client.requestDecision(query);
            micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            denied += decision.isAllow() ? 0 : 1;
        }
    }
    std::sort(micros.begin(), micros.end());
    auto percentile = [&](double p) { return micros[static_cast<std::size_t>(p * static_cast<double>(micros.size() - 1))]; };
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p99_us"] = percentile(0.99);
    state.counters["max_us"] = micros.back();
    state.counters["denied"] = denied;
}
BENCHMARK(BM_GatewayDecisionRoundTrip)->Arg(2000)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
