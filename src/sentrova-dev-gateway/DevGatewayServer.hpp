#pragma once

// The dev gateway's HTTP side: POST /v1/toolcall answers a tools/call question with the
// policy's verdict (after the matching rule's delay), POST /v1/event records screenshot and
// pin-violation events. Both require "Authorization: Bearer <token>" when a token is set.

#include <memory>
#include <optional>
#include <string>

#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"
#include "sentrova-dev-gateway/DevGatewayPolicy.hpp"

namespace sentrova {

class DevGatewayServer {
public:
    DevGatewayServer(DevGatewayPolicy policy, std::shared_ptr<DevGatewayAuditLog> auditLog,
                     std::optional<std::string> token);
    ~DevGatewayServer();
    DevGatewayServer(const DevGatewayServer&) = delete;
    DevGatewayServer& operator=(const DevGatewayServer&) = delete;

    // Binds to host:port (port 0 picks a free one); the bound port, or nullopt on failure.
    std::optional<int> bind(const std::string& host, int port);
    // Serves until stop(); call after a successful bind().
    void run();
    // Ends run() and cuts short any pending rule delay. Safe from any thread, also before run().
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace sentrova
