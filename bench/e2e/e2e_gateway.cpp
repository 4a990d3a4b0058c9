// A minimal policy gateway on 127.0.0.1 that allows every tool call at once. Prints its port on
// standard output, then serves until killed. GET /stats answers the number of decisions given, so
// the driver can check that the bridge really asked.
// Usage: e2e_gateway

#include <httplib.h>

#include <atomic>
#include <cstdio>
#include <string>

int main() {
    std::atomic<uint64_t> decisions{0};
    std::atomic<uint64_t> events{0};
    httplib::Server server;
    server.set_tcp_nodelay(true);
    server.set_keep_alive_max_count(1'000'000'000);
    server.set_keep_alive_timeout(300);
    server.Post("/v1/toolcall", [&](const httplib::Request&, httplib::Response& res) {
        decisions.fetch_add(1, std::memory_order_relaxed);
        res.set_content(R"({"decision":"allow"})", "application/json");
    });
    server.Post("/v1/event", [&](const httplib::Request&, httplib::Response& res) {
        events.fetch_add(1, std::memory_order_relaxed);
        res.set_content("{}", "application/json");
    });
    server.Get("/stats", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(std::to_string(decisions.load()) + " " + std::to_string(events.load()) + "\n", "text/plain");
    });
    int port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0) {
        std::fprintf(stderr, "e2e_gateway: cannot bind 127.0.0.1\n");
        return 1;
    }
    std::printf("%d\n", port);
    std::fflush(stdout);
    return server.listen_after_bind() ? 0 : 1;
}
