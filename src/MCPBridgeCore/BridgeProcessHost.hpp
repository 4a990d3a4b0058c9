#pragma once

// One run of the bridge: the server as a child, both streams pumped through the router.
//
// Threads of a run, and what each runs:
//   main              start-up, launch of the server, then waits in run() for the end
//   client-input pump MCPBridgeRouter::handleClientLine for each client line: relays, answers
//                     refused lines, starts tool-call decisions without waiting for them (it
//                     waits only for a free slot when 64 are pending), withdraws cancelled calls;
//                     at the end of input, waits for pending decisions, then closes the server's input
//   server-output pump MCPBridgeRouter::handleServerLine: tool-list capture, screenshot events, relay
//   HTTP worker       every gateway request side by side; runs each decision's completion (allow:
//                     the call to the server; deny: the answer to the client)
//   scheduler         every heartbeat tick of every pending call
//   child waiter      waitpid on the server
//   stderr copier     the server's standard error to ours
//
// Locks, each held only around its own short operation:
//   client write lock      one write to our standard output (pumps, completions, ticks)
//   server write lock      one write to the server's input (client pump, completions)
//   router stateLock_      pending tool-list ids, forwarded call ids, pending calls and their count
//   router relayOrderLock_ an allowed call's settling and its write to the server, and the client
//                          pump's handling of a cancellation, so a relayed cancellation never
//                          overtakes its call
//   pending call lock      the gateway request handle of one pending call
//   pin table lock         the pin table
//   heartbeat counter lock one heartbeat's count
//   scheduler mutex        the timer list and the timer running now (cancel() waits for it)
//   gateway queueLock      requests and withdrawals handed to the HTTP worker
//   pending decision lock  one request's completion handler (taken once: answer or withdrawal)

#include <memory>

#include "MCPBridgeCore/BridgeConfig.hpp"
#include "MCPBridgeCore/MCPBridgeContract.hpp"

namespace sentrova {

// The host's own streams; the defaults are the process's standard streams.
struct HostStreams {
    int clientInput = 0;
    int clientOutput = 1;
    int errorOutput = 2;
};

class BridgeProcessHost {
public:
    BridgeProcessHost(BridgeConfig config, std::shared_ptr<BridgeGatewayClient> gateway, HostStreams streams = {});

    // Blocks until the run is over: 64 (no server command), 69 (launch failed), else the server's status.
    // The server's output is relayed whole before it returns; the process is meant to end right
    // after (with _exit: threads may still be blocked in reads of streams that never end).
    int run();

    // SIGTERM, SIGINT and SIGHUP go to the server instead of ending the bridge at once. They are
    // taken on one thread of run() by sigwait, so every thread must have them blocked: call this
    // before any thread exists (run() calls it too, for the threads it starts).
    static void blockForwardedSignals();

private:
    BridgeConfig config_;
    std::shared_ptr<BridgeGatewayClient> gateway_;
    HostStreams streams_;
};

} // namespace sentrova
