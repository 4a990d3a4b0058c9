#pragma once

// The gateway client over libcurl: one multi handle on one worker thread for the whole process.

#include <memory>
#include <optional>
#include <string>

#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

class HTTPBridgeGatewayClient final : public BridgeGatewayClient {
public:
    HTTPBridgeGatewayClient(std::string baseURL, std::optional<std::string> token, double deadline);
    ~HTTPBridgeGatewayClient() override;
    HTTPBridgeGatewayClient(const HTTPBridgeGatewayClient&) = delete;
    HTTPBridgeGatewayClient& operator=(const HTTPBridgeGatewayClient&) = delete;

    BridgeDecision requestDecision(const BridgeToolCallQuery& query) override;
    void postEvent(const BridgeEvent& event) override;

    // The request URL for a path ("/v1/toolcall", "/v1/event") resolved against the base by
    // RFC 3986 section 5.2; nullopt when no URL can be formed.
    static std::optional<std::string> resolve(const std::string& baseURL, const std::string& path);

private:
    struct Session;
    std::string baseURL_;
    std::optional<std::string> token_;
    double deadline_;
    std::unique_ptr<Session> session_;
};

} // namespace sentrova
