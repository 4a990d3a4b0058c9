// The server side of a client->server run: reads its standard input to the end, writes nothing,
// notes the time, then hashes what it read and reports "PID BYTES SHA256 END_NANOS" on the FIFO.
// Usage: e2e_sink RESULT_FIFO

#include "BenchSupport.hpp"

using namespace sentrova::bench;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: e2e_sink RESULT_FIFO\n");
        return 2;
    }
    blockReleaseSignal();
    CaptureBuffer received;
    while (received.readFrom(0) > 0) {
    }
    int64_t end = nowNanos();
    std::string report = std::to_string(getpid()) + " " + std::to_string(received.total()) + " " +
                         received.finishHash() + " " + std::to_string(end) + "\n";
    reportAndAwaitRelease(argv[1], report);
    return 0;
}
