#include "MCPBridgeCore/GatewayEndpoint.hpp"

#include <string_view>

#include <uriparser/Uri.h>

namespace sentrova {

namespace {

// Put in front of a base without a scheme, so that the resolver (which wants an absolute base)
// still applies section 5.2; it is taken off the result again.
constexpr std::string_view placeholderPrefix = "sentrova-relative:";

// A parsed reference; the text stays alive beside the parse, which points into it.
class ParsedReference {
public:
    explicit ParsedReference(std::string text) : text_(std::move(text)) {
        parsed_ = uriParseSingleUriExA(&uri_, text_.data(), text_.data() + text_.size(), nullptr) == URI_SUCCESS;
    }
    ~ParsedReference() { uriFreeUriMembersA(&uri_); }
    ParsedReference(const ParsedReference&) = delete;
    ParsedReference& operator=(const ParsedReference&) = delete;

    bool parsed() const noexcept { return parsed_; }
    const UriUriA* uri() const noexcept { return &uri_; }

private:
    std::string text_;
    UriUriA uri_{};
    bool parsed_ = false;
};

std::string_view rangeText(const UriTextRangeA& range) {
    if (range.first == nullptr || range.afterLast == nullptr) return {};
    return std::string_view(range.first, static_cast<std::size_t>(range.afterLast - range.first));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

std::optional<std::string> resolve(const ParsedReference& base, bool relativeBase, const char* path) {
    ParsedReference reference(path);
    UriUriA resolved{};
    // On failure the resolver has already freed what it built.
    if (!reference.parsed() || uriAddBaseUriA(&resolved, reference.uri(), base.uri()) != URI_SUCCESS) {
        return std::nullopt;
    }
    int length = 0;
    std::optional<std::string> text;
    if (uriToStringCharsRequiredA(&resolved, &length) == URI_SUCCESS) {
        text.emplace(static_cast<std::size_t>(length) + 1, '\0');
        if (uriToStringA(text->data(), &resolved, length + 1, nullptr) == URI_SUCCESS) {
            text->resize(static_cast<std::size_t>(length));
        } else {
            text.reset();
        }
    }
    uriFreeUriMembersA(&resolved);
    if (text && relativeBase && text->starts_with(placeholderPrefix)) text->erase(0, placeholderPrefix.size());
    return text;
}

} // namespace

std::optional<GatewayEndpoint> GatewayEndpoint::parse(const std::string& base) {
    if (base.empty()) return std::nullopt;
    ParsedReference given(base);
    if (!given.parsed()) return std::nullopt;

    const std::string_view scheme = rangeText(given.uri()->scheme);
    const bool relativeBase = scheme.empty();
    const ParsedReference absolute(relativeBase ? std::string(placeholderPrefix) + base : base);
    GatewayEndpoint endpoint;
    if (absolute.parsed()) {
        endpoint.decisionURL_ = resolve(absolute, relativeBase, "/v1/toolcall");
        endpoint.eventURL_ = resolve(absolute, relativeBase, "/v1/event");
    }
    // Resolution keeps the base's scheme and host, so the base alone says whether they can be sent.
    const bool web = equalsIgnoringCase(scheme, "http") || equalsIgnoringCase(scheme, "https");
    endpoint.sendable_ = endpoint.decisionURL_ && web && !rangeText(given.uri()->hostText).empty();
    return endpoint;
}

} // namespace sentrova
