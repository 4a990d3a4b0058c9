#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "MCPBridgeCore/LinePump.hpp"

namespace {

using Lines = std::vector<std::string>;

// Writes each chunk as its own write on a real pipe (with a pause between them, so that the
// pump sees the chunks as separate reads) and returns every line the pump hands on.
// moreFollows, when given, gets the flag handed with each line.
Lines pumpChunks(const std::vector<std::string>& chunks, bool pauseBetweenChunks = true,
                 std::vector<bool>* moreFollows = nullptr) {
    int ends[2];
    if (::pipe(ends) != 0) {
        ADD_FAILURE() << "pipe failed";
        return {};
    }
    std::thread writer([&, writeEnd = ends[1]] {
        for (const std::string& chunk : chunks) {
            std::size_t done = 0;
            while (done < chunk.size()) {
                const ssize_t written = ::write(writeEnd, chunk.data() + done, chunk.size() - done);
                if (written <= 0) break;
                done += static_cast<std::size_t>(written);
            }
            if (pauseBetweenChunks) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ::close(writeEnd);
    });
    Lines lines;
    sentrova::pumpLines(ends[0], [&](std::string line, bool more) {
        lines.push_back(std::move(line));
        if (moreFollows) moreFollows->push_back(more);
    });
    writer.join();
    ::close(ends[0]);
    return lines;
}

} // namespace

TEST(LinePumpTests, OnlyLineFeedEndsALineAndEmptyLinesAreDropped) {
    EXPECT_EQ(pumpChunks({"a\nb"}), (Lines{"a", "b"}));
    EXPECT_EQ(pumpChunks({"\n\n"}), Lines{});
    EXPECT_EQ(pumpChunks({}), Lines{});
    EXPECT_EQ(pumpChunks({"a\r\n"}), (Lines{"a\r"}));
    EXPECT_EQ(pumpChunks({"\r\n \n\t\n"}), (Lines{"\r", " ", "\t"}));
    EXPECT_EQ(pumpChunks({"one\n\n\ntwo\n"}), (Lines{"one", "two"}));
    // Bytes are passed on untouched: NUL, invalid UTF-8, a lone CR inside a line.
    EXPECT_EQ(pumpChunks({std::string("a\0b\xff\rc\n", 7)}), (Lines{std::string("a\0b\xff\rc", 6)}));
}

TEST(LinePumpTests, ChunkBoundariesDoNotChangeTheLines) {
    EXPECT_EQ(pumpChunks({"ab", "c\nde", "f\n", "\ng", "h"}), (Lines{"abc", "def", "gh"}));

    // Every split point of one text gives the same lines.
    const std::string text = "first\r\n\nsecond line\nthird\n";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        EXPECT_EQ(pumpChunks({text.substr(0, cut), text.substr(cut)}), (Lines{"first\r", "second line", "third"}))
            << "cut at " << cut;
    }
}

TEST(LinePumpTests, SaysWhetherAnotherWholeLineIsInHand) {
    // Empty lines and a partial line do not count: the output of "b" must not wait for them.
    std::vector<bool> more;
    EXPECT_EQ(pumpChunks({"a\n\nb\n\nc"}, true, &more), (Lines{"a", "b", "c"}));
    EXPECT_EQ(more, (std::vector<bool>{true, false, false}));
}

TEST(LinePumpTests, LongLinesArriveWholeAndInOrder) {
    // Many small lines mixed with long ones, written as one stream, keep their order.
    std::string stream;
    Lines expected;
    for (int i = 0; i < 20'000; ++i) {
        std::string line = std::to_string(i);
        if (i % 5000 == 0) line += std::string(300'000 + i, 'L');
        stream += line + "\n";
        expected.push_back(std::move(line));
    }
    EXPECT_TRUE(pumpChunks({stream}, false) == expected);
}

TEST(LinePumpTests, StopsAtReadErrorsLikeAtEndOfStream) {
    // A descriptor that cannot be read (write-only end) ends the pump at once.
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    int calls = 0;
    sentrova::pumpLines(ends[1], [&](std::string, bool) { ++calls; });
    EXPECT_EQ(calls, 0);
    ::close(ends[0]);
    ::close(ends[1]);
}
