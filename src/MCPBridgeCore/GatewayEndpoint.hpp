#pragma once

// The gateway's base URL, read once: the request URLs of decisions and events, resolved against
// it by RFC 3986 section 5.2, and whether they can go out over HTTP at all.

#include <optional>
#include <string>

namespace sentrova {

class GatewayEndpoint {
public:
    // nullopt when base is empty or not an RFC 3986 reference. A base without a scheme or host
    // still gives URLs; they just cannot be sent.
    static std::optional<GatewayEndpoint> parse(const std::string& base);

    // An endpoint without URLs: every decision is denied as "URL invalid", every event dropped.
    GatewayEndpoint() = default;

    // "/v1/toolcall" and "/v1/event" resolved against the base; nullopt when no URL could be formed.
    const std::optional<std::string>& decisionURL() const noexcept { return decisionURL_; }
    const std::optional<std::string>& eventURL() const noexcept { return eventURL_; }
    // Absolute http or https with a host. libcurl would guess a scheme for anything else, or speak
    // another protocol; such a URL is a transport failure instead.
    bool sendable() const noexcept { return sendable_; }

private:
    std::optional<std::string> decisionURL_;
    std::optional<std::string> eventURL_;
    bool sendable_ = false;
};

} // namespace sentrova
