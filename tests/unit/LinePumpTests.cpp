#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "MCPBridgeCore/LinePump.hpp"

namespace {

using Lines = std::vector<std::string>;

// Writes each chunk as its own write on a real pipe (pausing between them, so that the pump sees
// separate reads) and returns every line the pump hands on, with "+" when it says more follows
// (unless told to leave that out).
Lines pumpChunks(const std::vector<std::string>& chunks, bool pause = true, bool markMore = true) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    std::thread writer([&, writeEnd = ends[1]] {
        for (const std::string& chunk : chunks) {
            for (ssize_t done = 0, n = 0; done < ssize_t(chunk.size()) && n >= 0; done += n) n = ::write(writeEnd, chunk.data() + done, chunk.size() - done);
            if (pause) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ::close(writeEnd);
    });
    Lines lines;
    sentrova::pumpLines(ends[0], [&](std::string line, bool more) { lines.push_back(more && markMore ? line + "+" : line); });
    writer.join();
    ::close(ends[0]);
    return lines;
}


TEST(LinePumpTests, OnlyLineFeedEndsALineEmptyLinesAreDroppedAndBytesPassUntouched) {
    EXPECT_EQ(pumpChunks({}), Lines{});
    EXPECT_EQ(pumpChunks({"\r\n \n\t\n\n"}), (Lines{"\r+", " +", "\t"}));
    EXPECT_EQ(pumpChunks({std::string("a\0b\xff\rc\n", 7)}), (Lines{std::string("a\0b\xff\rc", 6)}));
    // Empty lines and a partial line do not count as more: the output of "b" must not wait for them.
    EXPECT_EQ(pumpChunks({"a\n\nb\n\nc"}), (Lines{"a+", "b", "c"}));
    // Every split point of one text gives the same lines.
    const std::string text = "first\r\n\nsecond line\nthird\n";
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
        EXPECT_EQ(pumpChunks({text.substr(0, cut), text.substr(cut)}, true, false), (Lines{"first\r", "second line", "third"}))
            << cut;
    }
    // A descriptor that cannot be read (a write-only end) ends the pump like the end of the stream.
    int ends[2], calls = 0;
    ASSERT_EQ(::pipe(ends), 0);
    sentrova::pumpLines(ends[1], [&](std::string, bool) { ++calls; });
    EXPECT_EQ(calls + ::close(ends[0]) + ::close(ends[1]), 0);
    // Long lines arrive whole and in order.
    std::string stream;
    Lines expected;
    for (int i = 0; i < 20'000; ++i) {
        std::string line = std::to_string(i);
        if (i % 5000 == 0) line += std::string(300'000 + i, 'L');
        stream += line + "\n";
        expected.push_back(std::move(line));
    }
    EXPECT_TRUE(pumpChunks({stream}, false, false) == expected);
}

} // namespace
