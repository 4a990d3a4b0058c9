#pragma once

// The gateway client over libcurl: one multi handle on one worker thread for the whole process,
// both started (and libcurl loaded) by the first request, so that a relay that never asks the
// gateway never pays for them.

#include <memory>
#include <optional>
#include <string>

#include "MCPBridgeCore/GatewayEndpoint.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

struct CurlLibrary;

class HTTPBridgeGatewayClient final : public BridgeGatewayClient {
public:
    // caBundle: a file of CA certificates used for TLS in place of libcurl's default bundle.
    HTTPBridgeGatewayClient(const GatewayEndpoint& endpoint, std::optional<std::string> token, double deadline,
                            std::optional<std::string> caBundle = std::nullopt);
    // Where libcurl comes from: called once, on the first request. Null means libcurl cannot be
    // had, and then every decision is denied as unanswered and every event is dropped.
    using CurlLoader = const CurlLibrary* (*)();
    HTTPBridgeGatewayClient(const GatewayEndpoint& endpoint, std::optional<std::string> token, double deadline,
                            CurlLoader loadCurl, std::optional<std::string> caBundle = std::nullopt);
    ~HTTPBridgeGatewayClient() override;
    HTTPBridgeGatewayClient(const HTTPBridgeGatewayClient&) = delete;
    HTTPBridgeGatewayClient& operator=(const HTTPBridgeGatewayClient&) = delete;

    BridgeDecision requestDecision(const BridgeToolCallQuery& query) override;
    // Every started decision is answered on the worker thread by its deadline at the latest
    // (the time-out deny); failures known at once are answered before this returns.
    std::shared_ptr<BridgeCancellable> startDecision(const BridgeToolCallQuery& query,
                                                     DecisionHandler onDecision) override;
    void postEvent(const BridgeEvent& event) override;

private:
    struct Session;
    std::unique_ptr<Session> session_;
};

} // namespace sentrova
