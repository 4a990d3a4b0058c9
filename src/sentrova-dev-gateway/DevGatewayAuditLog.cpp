#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sentrova-dev-gateway/DevGatewayPinStore.hpp"

namespace sentrova {

namespace {

// Writes all bytes, retrying short writes and interruptions; false on failure.
bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

int base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// "20240501T123456.789Z" with the separators that file names tolerate everywhere.
std::string fileTimestamp(std::chrono::system_clock::time_point when) {
    std::string text = auditTimestamp(when);
    std::string out;
    for (char c : text) {
        if (c != '-' && c != ':') {
            out.push_back(c == '.' ? '-' : c);
        }
    }
    return out;
}

} // namespace

std::string auditTimestamp(std::chrono::system_clock::time_point when) {
    using namespace std::chrono;
    const auto millis = duration_cast<milliseconds>(when.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 96> buffer{}; // room for any int the format could take
    std::snprintf(buffer.data(), buffer.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(millis % 1000));
    return buffer.data();
}

std::optional<std::string> decodeBase64(std::string_view text) {
    std::string out;
    out.reserve(text.size() / 4 * 3);
    unsigned accumulator = 0;
    int bits = 0;
    std::size_t digits = 0;
    std::size_t padding = 0;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            continue;
        }
        if (c == '=') {
            ++padding;
            continue;
        }
        const int digit = base64Digit(c);
        if (digit < 0 || padding > 0) {
            return std::nullopt; // a foreign character, or data after the padding
        }
        ++digits;
        accumulator = (accumulator << 6) | static_cast<unsigned>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((accumulator >> bits) & 0xFF));
        }
    }
    // A last quantum of one digit cannot hold a byte; padding may only fill the quantum.
    if (digits % 4 == 1 || padding > 2 || (padding > 0 && (digits + padding) % 4 != 0)) {
        return std::nullopt;
    }
    return out;
}

std::string imageExtension(std::string_view mimeType) {
    struct Known {
        std::string_view mimeType;
        std::string_view extension;
    };
    static constexpr std::array<Known, 7> known = {{{"image/png", "png"},
                                                    {"image/jpeg", "jpg"},
                                                    {"image/jpg", "jpg"},
                                                    {"image/gif", "gif"},
                                                    {"image/webp", "webp"},
                                                    {"image/bmp", "bmp"},
                                                    {"image/x-icon", "ico"}}};
    for (const Known& entry : known) {
        if (entry.mimeType == mimeType) {
            return std::string(entry.extension);
        }
    }
    return "bin";
}

DevGatewayAuditLog::DevGatewayAuditLog(std::string path, std::string directory, int fd, unsigned long long budget,
                                       unsigned long long used)
    : path_(std::move(path)), directory_(std::move(directory)), fd_(fd), screenshotBudget_(budget),
      screenshotBytes_(used) {}

DevGatewayAuditLog::~DevGatewayAuditLog() {
    ::close(fd_);
}

namespace {

int openLogFile(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

constexpr std::string_view kUnwritable = "not representable as JSON (a non-finite number or nesting deeper than 512)";

} // namespace

DevGatewayAuditLog::OpenResult DevGatewayAuditLog::open(const std::string& path, unsigned long long screenshotBudget) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error) {
        return "audit log " + path + ": " + error.message();
    }
    const std::filesystem::path directory = absolute.parent_path();
    std::filesystem::create_directories(directory, error);
    if (error) {
        return "audit log " + path + ": cannot create its directory: " + error.message();
    }
    const int fd = openLogFile(absolute.string());
    if (fd < 0) {
        return "audit log " + path + ": " + std::strerror(errno);
    }
    // Images from earlier runs count against the budget: the gateway may run for weeks.
    unsigned long long used = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        std::error_code ignored;
        if (entry.path().filename().string().rfind("screenshot-", 0) == 0 && entry.is_regular_file(ignored)) {
            used += entry.file_size(ignored);
        }
    }
    return std::unique_ptr<DevGatewayAuditLog>(
        new DevGatewayAuditLog(absolute.string(), directory.string(), fd, screenshotBudget, used));
}

bool DevGatewayAuditLog::append(Json::Object members) {
    members.push_back({"time", Json::string(auditTimestamp(std::chrono::system_clock::now()))});
    std::optional<std::string> line = writeJson(Json::object(members));
    if (!line) {
        // Keep every member that can be written, so the record still says what happened.
        for (JsonMember& member : members) {
            if (!writeJson(Json::array({member.value}))) {
                member.value = Json::string(std::string(kUnwritable));
            }
        }
        line = writeJson(Json::object(std::move(members)));
        if (!line) {
            return false;
        }
    }
    line->push_back('\n');
    // One write per line under the lock, so concurrent requests never interleave lines.
    const std::lock_guard<std::mutex> guard(writeLock_);
    struct stat before {};
    const bool sized = ::fstat(fd_, &before) == 0;
    if (writeAll(fd_, *line)) {
        if (failing_) {
            failing_ = false;
            std::fprintf(stderr, "sentrova-dev-gateway: the audit log %s can be written again\n", path_.c_str());
        }
        return true;
    }
    const int problem = errno;
    // A line cut short (disk full) is taken back, so that the next line is not glued to it;
    // when even that fails, the next line starts on a line of its own.
    if (!sized || ::ftruncate(fd_, before.st_size) != 0) {
        (void)writeAll(fd_, "\n");
    }
    if (!failing_) {
        failing_ = true;
        std::fprintf(stderr,
                     "sentrova-dev-gateway: cannot write the audit log %s (%s): denying every call until it can\n",
                     path_.c_str(), std::strerror(problem));
    }
    return false;
}

bool DevGatewayAuditLog::reopen() {
    const int fd = openLogFile(path_);
    if (fd < 0) {
        std::fprintf(stderr, "sentrova-dev-gateway: cannot reopen the audit log %s (%s): keeping the old file\n",
                     path_.c_str(), std::strerror(errno));
        return false;
    }
    const std::lock_guard<std::mutex> guard(writeLock_);
    ::close(fd_);
    fd_ = fd;
    return true;
}

DevGatewayAuditLog::SavedImage DevGatewayAuditLog::saveScreenshot(std::string_view base64, std::string_view mimeType) {
    // The decoded size is known from the digits alone, so an oversized image is never decoded.
    std::size_t digits = 0;
    for (char c : base64) {
        digits += (c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != '=') ? 1 : 0;
    }
    if (digits / 4 * 3 + (digits % 4 == 0 ? 0 : digits % 4 - 1) > kMaxScreenshotBytes) {
        return {{}, "the image is larger than 16 MiB"};
    }
    const std::optional<std::string> bytes = decodeBase64(base64);
    if (!bytes) {
        return {{}, "the image data is not valid base64"};
    }
    {
        const std::lock_guard<std::mutex> guard(writeLock_);
        if (screenshotBytes_ + bytes->size() > screenshotBudget_) {
            return {{}, "the screenshot budget of " + std::to_string(screenshotBudget_) +
                            " bytes is used up (--screenshot-budget)"};
        }
        screenshotBytes_ += bytes->size(); // reserved before writing, so parallel saves cannot overshoot
    }
    const unsigned counter = ++screenshotCounter_;
    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "%04u", counter);
    const std::string name = "screenshot-" + fileTimestamp(std::chrono::system_clock::now()) + "-" + number.data() +
                             "." + imageExtension(mimeType);
    const std::string path = (std::filesystem::path(directory_) / name).string();
    if (auto problem = writeFileAtomically(path, *bytes)) {
        const std::lock_guard<std::mutex> guard(writeLock_);
        screenshotBytes_ -= bytes->size();
        return {{}, *problem};
    }
    return {path, {}};
}

} // namespace sentrova
