#pragma once

// The run's configuration, filled only by the command line.

#include <optional>
#include <string>
#include <vector>

#include "MCPBridgeCore/GatewayEndpoint.hpp"

namespace sentrova {

struct BridgeConfig {
    GatewayEndpoint gateway;
    std::optional<std::string> gatewayToken;
    std::string workerName;
    std::optional<std::string> provider;
    std::vector<std::string> serverArgv;
    double deadline = 240.0;
    double heartbeatInterval = 15.0;
    // CA certificates for the gateway's TLS, from CURL_CA_BUNDLE or else SSL_CERT_FILE (as the curl
    // tool reads them); absent: libcurl's own default bundle.
    std::optional<std::string> caBundle;

    // serverArgv joined with single spaces, no quoting.
    std::string serverCommandString() const;
};

} // namespace sentrova
