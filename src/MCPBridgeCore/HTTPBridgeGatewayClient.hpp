#pragma once

// The gateway client over libcurl: one multi handle on one worker thread for the whole process,
// both started (and libcurl loaded) by the first request, so that a relay that never asks the
// gateway never pays for them.

#include <memory>
#include <optional>
#include <string>

#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

struct CurlLibrary;

class HTTPBridgeGatewayClient final : public BridgeGatewayClient {
public:
    // caBundle: a file of CA certificates used for TLS in place of libcurl's default bundle.
    HTTPBridgeGatewayClient(std::string baseURL, std::optional<std::string> token, double deadline,
                            std::optional<std::string> caBundle = std::nullopt);
    // Where libcurl comes from: called once, on the first request. Null means libcurl cannot be
    // had, and then every decision is denied as unanswered and every event is dropped.
    using CurlLoader = const CurlLibrary* (*)();
    HTTPBridgeGatewayClient(std::string baseURL, std::optional<std::string> token, double deadline,
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
