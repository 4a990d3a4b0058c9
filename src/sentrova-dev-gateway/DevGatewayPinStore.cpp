#include "sentrova-dev-gateway/DevGatewayPinStore.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

std::optional<std::string> writeFileAtomically(const std::string& path, std::string_view bytes) {
    std::string temporary = path + ".tmp-XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC); // mode 0600
    if (fd < 0) {
        return "cannot create a file beside " + path + ": " + std::strerror(errno);
    }
    bool written = true;
    while (!bytes.empty() && written) {
        const ssize_t count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        written = count > 0;
        if (written) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    const int savedErrno = errno;
    const bool synced = written && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (!written || !synced || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
        const std::string problem = "cannot write " + path + ": " + std::strerror(written ? errno : savedErrno);
        ::unlink(temporary.c_str());
        return problem;
    }
    return std::nullopt;
}

DevGatewayPinStore::LoadResult DevGatewayPinStore::load(const std::string& path) {
    std::unique_ptr<DevGatewayPinStore> store(new DevGatewayPinStore(path));
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) {
            return store;
        }
        return "state file " + path + ": " + std::strerror(errno);
    }
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!S_ISREG(info.st_mode) || !file) {
        return "state file " + path + ": cannot be read";
    }
    text << file.rdbuf(); // an empty file reads as nothing, which is no pin list
    const std::string problem = "state file " + path + ": not a pin list written by sentrova-dev-gateway";
    const std::optional<Json> document = parseJson(text.str());
    const std::optional<Json> pins = document && document->isObject() ? document->find("pins") : std::nullopt;
    if (!pins || !pins->isArray()) {
        return problem + " (move it away to start afresh)";
    }
    for (const Json& entry : pins->arrayValue()) {
        const std::optional<Json> serverCommand = entry.find("serverCommand");
        const std::optional<Json> tool = entry.find("tool");
        const std::optional<Json> pinHash = entry.find("pinHash");
        if (!serverCommand || !tool || !pinHash || !serverCommand->isString() || !tool->isString() ||
            !pinHash->isString()) {
            return problem + " (move it away to start afresh)";
        }
        store->pins_[{std::string(serverCommand->stringValue()), std::string(tool->stringValue())}] = pinHash->stringValue();
    }
    return store;
}

std::optional<std::string> DevGatewayPinStore::pin(const std::string& serverCommand, const std::string& tool) const {
    const auto found = pins_.find({serverCommand, tool});
    return found == pins_.end() ? std::nullopt : std::optional<std::string>(found->second);
}

std::optional<std::string> DevGatewayPinStore::remember(const std::string& serverCommand, const std::string& tool,
                                                        const std::string& pinHash) {
    auto [entry, added] = pins_.try_emplace({serverCommand, tool}, pinHash);
    if (!added && entry->second == pinHash) {
        return std::nullopt;
    }
    entry->second = pinHash;
    return save();
}

std::optional<std::string> DevGatewayPinStore::save() const {
    Json::Array entries;
    for (const auto& [key, pinHash] : pins_) {
        entries.push_back(Json::object({{"serverCommand", Json::string(key.first)},
                                        {"tool", Json::string(key.second)},
                                        {"pinHash", Json::string(pinHash)}}));
    }
    const std::optional<std::string> text = writeJson(Json::object({{"pins", Json::array(std::move(entries))}}));
    if (!text) {
        return "cannot write " + path_ + ": a pin could not be written as JSON";
    }
    return writeFileAtomically(path_, *text + "\n");
}

} // namespace sentrova
