#pragma once

// Cuts a byte stream into LF-terminated lines and hands each non-empty line to a sink.

#include <functional>
#include <string>

namespace sentrova {

// Receives each line, and whether another complete line is already in hand after it (then the
// sink may hold its output back to write it together with the next line's).
using LineSink = std::function<void(std::string line, bool moreFollows)>;

// Told true just before each read and false once it has returned, so that a caller can tell a
// silent stream from a pump that is busy handing lines on.
using ReadWatcher = std::function<void(bool reading)>;

// Reads fd until end of stream (or a read error, treated as the end). Only 0x0A ends a line;
// CR is kept; empty lines are dropped; a last line without LF is delivered at the end.
void pumpLines(int fd, const LineSink& sink, const ReadWatcher& watchReads = nullptr);

} // namespace sentrova
