#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include "TestSupport.hpp"
#include "sentrova-dev-gateway/DevGatewayAuditLog.hpp"

namespace sentrova {
namespace {

namespace fs = std::filesystem;

std::string readBytes(const fs::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

TEST(DevGatewayAuditLogTests, TimestampsBase64AndImageNames) {
    EXPECT_EQ(auditTimestamp(std::chrono::system_clock::time_point(std::chrono::milliseconds(1714566896789))),
              "2024-05-01T12:34:56.789Z");
    EXPECT_EQ(decodeBase64("aGVsbG8=").value_or("") + decodeBase64("aGVsbG8").value_or("") + decodeBase64("aGVs\nbG8h").value_or("") +
                  decodeBase64("/w==").value_or(""), "hellohellohello!\xFF");
    // A bad character, a lone digit that holds no byte, data after padding, too much padding.
    for (const char* bad : {"aGVsbG8*", "aGVsb", "aG==VsbG8", "aGV==="}) EXPECT_FALSE(decodeBase64(bad).has_value()) << bad;
    EXPECT_EQ(imageExtension("image/png") + imageExtension("image/jpeg") + imageExtension("image/x-unknown"), "pngjpgbin");
}

// Whole JSON lines from many threads, appended after what is there; a write cut short (disk full)
// is taken back so the next line is never glued to it; after rotation, reopen writes a new file.
TEST(DevGatewayAuditLogTests, AppendsWholeLinesNeverGluesThemReopensAndSavesScreenshots) {
    const fs::path directory = test::temporaryDirectory(), logPath = directory / "nested" / "audit.jsonl";
    {
        auto log = std::get<std::unique_ptr<DevGatewayAuditLog>>(DevGatewayAuditLog::open(logPath.string()));
        EXPECT_EQ(log->directory(), (directory / "nested").string());
        std::vector<std::thread> writers;
        for (int writer = 0; writer < 4; ++writer) {
            writers.emplace_back([&log, writer] {
                for (int i = 0; i < 50; ++i) log->append({{"writer", Json::integer(writer)}, {"padding", Json::string(std::string(3000, 'x'))}});
            });
        }
        for (std::thread& writer : writers) writer.join();
    }
    auto log = std::get<std::unique_ptr<DevGatewayAuditLog>>(DevGatewayAuditLog::open(logPath.string()));
    EXPECT_TRUE(log->append({{"kind", Json::string("event")}}));
    EXPECT_EQ(fs::status(logPath).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    std::ifstream file(logPath);
    std::size_t lines = 0;
    for (std::string line; std::getline(file, line); ++lines) {
        const Json record = parseJson(line).value_or(Json());
        EXPECT_EQ(record.find("time") ? record.find("time")->stringValue().size() : 0, 24u) << line.substr(0, 80);
    }
    EXPECT_EQ(lines, 201u);

    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = fs::file_size(logPath) + 100; // room for a part of the next line only
    ::setrlimit(RLIMIT_FSIZE, &small);
    const bool cutLineWritten = log->append({{"padding", Json::string(std::string(3000, 'y'))}});
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(cutLineWritten);
    EXPECT_TRUE(log->append({{"kind", Json::string("after")}}));
    const std::string text = readBytes(logPath);
    EXPECT_EQ(text.find("yyy"), std::string::npos);
    EXPECT_NE(text.find("\n{\"kind\":\"after\""), std::string::npos);
    fs::rename(logPath, directory / "audit.jsonl.1");
    EXPECT_TRUE(log->reopen());
    EXPECT_TRUE(log->append({{"kind", Json::string("rotated")}}));
    EXPECT_NE(readBytes(logPath).find("rotated"), std::string::npos);

    // Screenshots are saved decoded, beside the log, under distinct names of bounded size.
    const DevGatewayAuditLog::SavedImage first = log->saveScreenshot("iVBORw0KGgo=", "image/png");
    const DevGatewayAuditLog::SavedImage second = log->saveScreenshot("/9j/", "image/jpeg");
    EXPECT_EQ(first.problem + second.problem, "");
    EXPECT_EQ(fs::path(first.path).parent_path(), directory / "nested");
    EXPECT_EQ(fs::path(first.path).extension().string() + fs::path(second.path).extension().string(), ".png.jpg");
    EXPECT_EQ(readBytes(first.path), std::string("\x89PNG\r\n\x1A\n", 8));
    EXPECT_EQ(readBytes(second.path), std::string("\xFF\xD8\xFF", 3));
    const DevGatewayAuditLog::SavedImage bad = log->saveScreenshot("not base64!", "image/png");
    EXPECT_TRUE(bad.path.empty() && !bad.problem.empty());
    const std::string big(DevGatewayAuditLog::kMaxScreenshotBytes / 3 * 4 + 4, 'A');
    EXPECT_NE(log->saveScreenshot(big, "image/png").problem.find("16 MiB"), std::string::npos);
    EXPECT_EQ(fs::path(log->saveScreenshot("PHN2Zz4=", "image/svg+xml").path).extension(), ".bin");
    // Opening a directory as the log fails with a message naming it.
    auto opened = DevGatewayAuditLog::open(directory.string());
    ASSERT_TRUE(std::holds_alternative<std::string>(opened));
    EXPECT_NE(std::get<std::string>(opened).find(directory.string()), std::string::npos);
    fs::remove_all(directory);
}

} // namespace
} // namespace sentrova
