#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"

using namespace sentrova;
namespace fs = std::filesystem;

namespace {

// A fresh directory under the system's temporary directory, removed afterwards.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (fs::temp_directory_path() / "devgateway-test-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

std::unique_ptr<DevGatewayAuditLog> openLog(const fs::path& path) {
    auto opened = DevGatewayAuditLog::open(path.string());
    if (auto* error = std::get_if<std::string>(&opened)) {
        ADD_FAILURE() << *error;
        return nullptr;
    }
    return std::move(std::get<std::unique_ptr<DevGatewayAuditLog>>(opened));
}

std::string readBytes(const fs::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

} // namespace

TEST(DevGatewayAuditLogTests, TimestampsAndBase64) {
    EXPECT_EQ(auditTimestamp(std::chrono::system_clock::time_point(std::chrono::milliseconds(1714566896789))),
              "2024-05-01T12:34:56.789Z");
    EXPECT_EQ(decodeBase64("aGVsbG8="), "hello");
    EXPECT_EQ(decodeBase64("aGVsbG8"), "hello");
    EXPECT_EQ(decodeBase64("aGVs\nbG8h"), "hello!");
    EXPECT_EQ(decodeBase64("/w=="), std::string(1, '\xFF'));
    EXPECT_FALSE(decodeBase64("aGVsbG8*").has_value());
    EXPECT_FALSE(decodeBase64("aGVsb").has_value());     // a lone digit holds no byte
    EXPECT_FALSE(decodeBase64("aG==VsbG8").has_value()); // data after padding
    EXPECT_FALSE(decodeBase64("aGV===").has_value());
    EXPECT_EQ(imageExtension("image/png"), "png");
    EXPECT_EQ(imageExtension("image/jpeg"), "jpg");
    EXPECT_EQ(imageExtension("image/x-unknown"), "bin");
}

TEST(DevGatewayAuditLogTests, AppendsWholeJsonLinesFromManyThreads) {
    TemporaryDirectory directory;
    const fs::path logPath = directory.path() / "nested" / "audit.jsonl";
    {
        auto log = openLog(logPath);
        ASSERT_TRUE(log);
        EXPECT_EQ(log->directory(), (directory.path() / "nested").string());
        std::vector<std::thread> writers;
        for (int writer = 0; writer < 4; ++writer) {
            writers.emplace_back([&log, writer] {
                for (int i = 0; i < 50; ++i) {
                    log->append({{"kind", Json::string("toolcall")},
                                 {"writer", Json::integer(writer)},
                                 {"padding", Json::string(std::string(3000, 'x'))}});
                }
            });
        }
        for (std::thread& writer : writers) writer.join();
    }
    // Re-opening appends after what is there.
    openLog(logPath)->append({{"kind", Json::string("event")}});

    std::vector<std::string> lines;
    std::ifstream file(logPath);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 201u);
    for (const std::string& line : lines) {
        const std::optional<Json> record = parseJson(line);
        ASSERT_TRUE(record && record->isObject()) << line.substr(0, 80);
        const Json* time = record->find("time");
        ASSERT_TRUE(time && time->isString());
        EXPECT_EQ(time->stringValue().size(), 24u);
    }
    EXPECT_EQ(parseJson(lines.back())->find("kind")->stringValue(), "event");
}

TEST(DevGatewayAuditLogTests, SavesDecodedScreenshotsUnderDistinctNames) {
    TemporaryDirectory directory;
    auto log = openLog(directory.path() / "audit.jsonl");
    ASSERT_TRUE(log);
    const DevGatewayAuditLog::SavedImage first = log->saveScreenshot("iVBORw0KGgo=", "image/png");
    const DevGatewayAuditLog::SavedImage second = log->saveScreenshot("/9j/", "image/jpeg");
    ASSERT_TRUE(first.problem.empty()) << first.problem;
    ASSERT_TRUE(second.problem.empty()) << second.problem;
    EXPECT_NE(first.path, second.path);
    EXPECT_EQ(fs::path(first.path).parent_path(), directory.path());
    EXPECT_EQ(fs::path(first.path).extension(), ".png");
    EXPECT_EQ(fs::path(second.path).extension(), ".jpg");
    EXPECT_EQ(readBytes(first.path), std::string("\x89PNG\r\n\x1A\n", 8));
    EXPECT_EQ(readBytes(second.path), std::string("\xFF\xD8\xFF", 3));

    const DevGatewayAuditLog::SavedImage bad = log->saveScreenshot("not base64!", "image/png");
    EXPECT_TRUE(bad.path.empty());
    EXPECT_FALSE(bad.problem.empty());

    // Opening a directory as the log fails with a message naming it.
    auto opened = DevGatewayAuditLog::open(directory.path().string());
    ASSERT_TRUE(std::holds_alternative<std::string>(opened));
    EXPECT_NE(std::get<std::string>(opened).find(directory.path().string()), std::string::npos);
}


// A write cut short (disk full) is taken back, so the next line is never glued to it; after
// log rotation, SIGHUP's reopen writes to a new file by the log's name; images are limited.
TEST(DevGatewayAuditLogTests, NeverGluesLinesReopensAndBoundsImages) {
    TemporaryDirectory directory;
    const fs::path logPath = directory.path() / "audit.jsonl";
    auto log = openLog(logPath);
    ASSERT_TRUE(log);
    EXPECT_TRUE(log->append({{"kind", Json::string("first")}}));
    EXPECT_EQ(fs::status(logPath).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = fs::file_size(logPath) + 100; // room for a part of the next line only
    ::setrlimit(RLIMIT_FSIZE, &small);
    const bool cutLineWritten = log->append({{"padding", Json::string(std::string(3000, 'x'))}});
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(cutLineWritten);
    EXPECT_TRUE(log->append({{"kind", Json::string("after")}}));
    const std::string text = readBytes(logPath);
    EXPECT_EQ(text.find("xxx"), std::string::npos);
    EXPECT_NE(text.find("\n{\"kind\":\"after\""), std::string::npos);

    fs::rename(logPath, directory.path() / "audit.jsonl.1");
    EXPECT_TRUE(log->reopen());
    EXPECT_TRUE(log->append({{"kind", Json::string("rotated")}}));
    EXPECT_NE(readBytes(logPath).find("rotated"), std::string::npos);

    const std::string big(DevGatewayAuditLog::kMaxScreenshotBytes / 3 * 4 + 4, 'A');
    EXPECT_NE(log->saveScreenshot(big, "image/png").problem.find("16 MiB"), std::string::npos);
    EXPECT_EQ(fs::path(log->saveScreenshot("PHN2Zz4=", "image/svg+xml").path).extension(), ".bin");
}
