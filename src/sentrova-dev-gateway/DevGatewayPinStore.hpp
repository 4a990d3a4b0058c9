#pragma once

// The pins a person or a rule last allowed, per server command and tool, kept in a small JSON
// file so that a server that changed between two runs of the gateway (as "npx -y" fetches
// the newest version on every start) is noticed. Used from one thread only.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace sentrova {

class DevGatewayPinStore {
public:
    using LoadResult = std::variant<std::unique_ptr<DevGatewayPinStore>, std::string>;

    // Reads the file; a missing file is an empty store. An unreadable or malformed file is an
    // error naming it (never a silent reset, which would forget every pin).
    static LoadResult load(const std::string& path);

    const std::string& path() const noexcept { return path_; }

    // The pin remembered for this server command and tool, if any.
    std::optional<std::string> pin(const std::string& serverCommand, const std::string& tool) const;

    // Remembers the pin and rewrites the file whole (temporary file, then rename) when it
    // changed; the problem when the file could not be written (the pin is kept in memory).
    std::optional<std::string> remember(const std::string& serverCommand, const std::string& tool,
                                        const std::string& pinHash);

private:
    explicit DevGatewayPinStore(std::string path) : path_(std::move(path)) {}
    std::optional<std::string> save() const;

    const std::string path_;
    std::map<std::pair<std::string, std::string>, std::string> pins_;
};

// Writes bytes to path whole or not at all: a temporary file beside it, readable by the owner
// only, synced and renamed over path. The problem, or nullopt.
std::optional<std::string> writeFileAtomically(const std::string& path, std::string_view bytes);

} // namespace sentrova
