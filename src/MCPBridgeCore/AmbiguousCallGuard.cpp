#include "MCPBridgeCore/AmbiguousCallGuard.hpp"

#include <algorithm>
#include <array>
#include <cstddef>

namespace sentrova::AmbiguousCallGuard {

namespace {

constexpr std::string_view kLongS = "\xC5\xBF";        // U+017F, folds to "s"
constexpr std::string_view kKelvin = "\xE2\x84\xAA";   // U+212A, folds to "k"

// How often one member name turns up among the members of an object.
struct Spellings {
    int exact = 0;
    int variant = 0;
    bool ambiguous() const noexcept { return exact > 1 || variant > 0; }
};

template <std::size_t N>
bool anyAmbiguous(const Json::Object& members, const std::array<std::string_view, N>& names) noexcept {
    std::array<Spellings, N> seen{};
    for (const JsonMember& member : members) {
        for (std::size_t i = 0; i < N; ++i) {
            if (member.key == names[i]) {
                ++seen[i].exact;
            } else if (foldsTo(member.key, names[i])) {
                ++seen[i].variant;
            }
        }
    }
    for (const Spellings& spelling : seen) {
        if (spelling.ambiguous()) {
            return true;
        }
    }
    return false;
}

} // namespace

bool foldsTo(std::string_view name, std::string_view target) noexcept {
    std::size_t at = 0;
    for (const char wanted : target) {
        if (at >= name.size()) {
            return false;
        }
        const char c = name[at];
        if (c == wanted || (c >= 'A' && c <= 'Z' && c - 'A' + 'a' == wanted)) {
            ++at;
        } else if (wanted == 's' && name.substr(at, kLongS.size()) == kLongS) {
            at += kLongS.size();
        } else if (wanted == 'k' && name.substr(at, kKelvin.size()) == kKelvin) {
            at += kKelvin.size();
        } else {
            return false;
        }
    }
    return at == name.size();
}

Verdict inspect(const Json& message) noexcept {
    if (!message.isObject()) {
        return {};
    }
    static constexpr std::array<std::string_view, 3> kRoutingNames{"method", "id", "params"};
    static constexpr std::array<std::string_view, 3> kCallNames{"name", "arguments", "_meta"};

    const Json::Object& members = message.objectValue();
    // Only a message that some parser reads as a tool call can be ambiguous in a way that
    // matters, and almost no line is one: settle that first, testing the value before the name.
    const bool anyToolCall = std::any_of(members.begin(), members.end(), [](const JsonMember& member) {
        return member.value.isString() && member.value.stringValue() == "tools/call" && foldsTo(member.key, "method");
    });
    if (!anyToolCall) {
        return {};
    }
    bool callsTool = false;
    bool unclear = anyAmbiguous(members, kRoutingNames);
    const Json* exactId = nullptr;
    const Json* variantId = nullptr;
    for (const JsonMember& member : members) {
        if (foldsTo(member.key, "method") && member.value.isString() && member.value.stringValue() == "tools/call") {
            callsTool = true;
        } else if (member.key == "id") {
            exactId = &member.value;
        } else if (foldsTo(member.key, "id")) {
            variantId = &member.value;
        } else if (!unclear && member.value.isObject() && foldsTo(member.key, "params")) {
            unclear = anyAmbiguous(member.value.objectValue(), kCallNames);
        }
    }
    if (!unclear || !callsTool) {
        return {};
    }
    return Verdict{true, exactId != nullptr ? exactId : variantId};
}

} // namespace sentrova::AmbiguousCallGuard
