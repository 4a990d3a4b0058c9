#pragma once

// The dev gateway's audit trail: one JSON object per line (JSON Lines), appended for every
// question, event and refused request, each with the time it was written. Screenshot
// images are decoded and saved as files in the log's directory, within a size budget.
// The log, and every image, is created readable by the owner only.

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

    inline static constexpr std::size_t kMaxScreenshotBytes = 16u * 1024u * 1024u;

    // Opens (creating when needed) the log file for appending; the error names the file.
    // Screenshots already beside it count against the budget.
    static OpenResult open(const std::string& path, unsigned long long screenshotBudget = 1ull << 30);
    ~DevGatewayAuditLog();
    DevGatewayAuditLog(const DevGatewayAuditLog&) = delete;
    DevGatewayAuditLog& operator=(const DevGatewayAuditLog&) = delete;

    const std::string& path() const noexcept { return path_; }
    const std::string& directory() const noexcept { return directory_; }

    // Appends one line: the given members plus "time" (a member that cannot be written as
    // JSON, such as a number beyond the double range, is replaced by a note saying so). Safe
    // from any thread. False when the line could not be written whole; then nothing of it
    // stays in the file (or the next line starts on a line of its own), and standard error
    // says so once until a line can be written again.
    bool append(Json::Object members);

    // Opens the log's path again (after log rotation moved the file away): new lines go to
    // a file by that name. False, and the old file kept, when it cannot be opened.
    bool reopen();

    struct SavedImage {
        std::string path;    // set when the file was written
        std::string problem; // set when it was not
    };
    // Decodes a base64 image of at most kMaxScreenshotBytes and, within the budget, saves it
    // beside the log as screenshot-<UTC time>-<counter>.<extension>, whole or not at all.
    SavedImage saveScreenshot(std::string_view base64, std::string_view mimeType);

private:
    DevGatewayAuditLog(std::string path, std::string directory, int fd, unsigned long long budget,
                       unsigned long long used);

    const std::string path_;
    const std::string directory_;
    std::mutex writeLock_; // guards fd_, failing_ and the byte counts
    int fd_;
    bool failing_ = false;
    const unsigned long long screenshotBudget_;
    unsigned long long screenshotBytes_;
    std::atomic<unsigned> screenshotCounter_{0};
};

} // namespace sentrova
