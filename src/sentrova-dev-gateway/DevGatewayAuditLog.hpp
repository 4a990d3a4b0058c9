#pragma once

// The dev gateway's audit trail: one JSON object per line (JSON Lines), appended for every
// question, event and refused request, each with the time it was written. Screenshot
// images are decoded and saved as files in the log's directory.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "MCPBridgeCore/Json.hpp"

namespace sentrova {

// "2024-05-01T12:34:56.789Z": UTC with milliseconds.
std::string auditTimestamp(std::chrono::system_clock::time_point when);

// Standard base64 (RFC 4648), padding optional, line breaks and blanks ignored; nullopt on
// any other character or a truncated quantum.
std::optional<std::string> decodeBase64(std::string_view text);

// File name extension for an image MIME type: "png", "jpg", "gif", "webp"..., "bin" when unknown.
std::string imageExtension(std::string_view mimeType);

class DevGatewayAuditLog {
public:
    using OpenResult = std::variant<std::unique_ptr<DevGatewayAuditLog>, std::string>;

    // Opens (creating when needed) the log file for appending; the error names the file.
    static OpenResult open(const std::string& path);
    ~DevGatewayAuditLog();
    DevGatewayAuditLog(const DevGatewayAuditLog&) = delete;
    DevGatewayAuditLog& operator=(const DevGatewayAuditLog&) = delete;

    const std::string& path() const noexcept { return path_; }
    const std::string& directory() const noexcept { return directory_; }

    // Appends one line: the given members plus "time". Safe from any thread; a failed write
    // is dropped (the gateway keeps answering).
    void append(Json::Object members);

    struct SavedImage {
        std::string path;    // set when the file was written
        std::string problem; // set when it was not
    };
    // Decodes a base64 image and saves it beside the log as
    // screenshot-<UTC time>-<counter>.<extension>.
    SavedImage saveScreenshot(std::string_view base64, std::string_view mimeType);

private:
    DevGatewayAuditLog(std::string path, std::string directory, int fd);

    const std::string path_;
    const std::string directory_;
    const int fd_;
    std::mutex writeLock_;
    std::atomic<unsigned> screenshotCounter_{0};
};

} // namespace sentrova
