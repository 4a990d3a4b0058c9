#pragma once

// The dev gateway's HTTP side, one event loop on Boost.Asio with Beast's HTTP parser:
//   POST /v1/toolcall  answers a tools/call question with the policy's verdict; "ask" rules
//                      and delays wait on a timer, holding no thread, until a person answers
//                      on the page, the rule's time runs out, or the bridge hangs up
//   POST /v1/event     records screenshot and pin-violation events
//   GET  /v1/pending   the calls waiting for a person (long poll: ?since=VERSION)
//   POST /v1/answer    a person's answer from the page
//   GET  /             the approval page (and /page.js, /page.css)
// Every request must name the gateway's own address in Host and, when it has an Origin,
// come from the gateway's own origin; every /v1/ request must carry the bearer token, checked
// before any body is read; POST bodies must be application/json, uncompressed, and at most
// 64 MiB. Connections that stay idle or send a request slower than 10 s are closed.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"
#include "sentrova-dev-gateway/DevGatewayPinStore.hpp"
#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"

namespace sentrova {

// The page's three files, served as they are.
std::string_view devGatewayPageHTML();
std::string_view devGatewayPageScript();
std::string_view devGatewayPageStyle();

struct DevGatewayLimits {
    std::size_t maxBodyBytes = 64u * 1024u * 1024u;
    std::size_t maxHeaderBytes = 16u * 1024u;
    double idleSeconds = 10.0;      // a whole request (headers, then body) must arrive within this
    double pollSeconds = 20.0;      // longest wait of GET /v1/pending
    std::size_t maxConnections = 900; // beyond this, new connections are closed at once
};

class DevGatewayServer {
public:
    // pinStore may be null: then no pin is remembered and pinKnown/toolKnown are false.
    DevGatewayServer(DevGatewayPolicy policy, std::shared_ptr<DevGatewayAuditLog> auditLog, std::string token,
                     std::shared_ptr<DevGatewayPinStore> pinStore = nullptr, DevGatewayLimits limits = {});
    ~DevGatewayServer();
    DevGatewayServer(const DevGatewayServer&) = delete;
    DevGatewayServer& operator=(const DevGatewayServer&) = delete;

    // Binds to host:port (port 0 picks a free one); the bound port, or nullopt on failure.
    std::optional<int> bind(const std::string& host, int port);
    // Serves until stop(); call after a successful bind().
    void run();
    // Ends run(); pending calls are cut off (their connections close, which the bridge reads
    // as a deny). Safe from any thread, also before run().
    void stop();

    struct Impl; // the event loop and its state, in the .cpp

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace sentrova
