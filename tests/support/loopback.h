// Helpers for the servers tests start on 127.0.0.1.
#ifndef ZEVA_TESTS_SUPPORT_LOOPBACK_H
#define ZEVA_TESTS_SUPPORT_LOOPBACK_H

#include <sys/types.h>

namespace zeva::test {

// A TCP port of 127.0.0.1 that was free a moment ago; 0 when none was found.
int FreeLoopbackPort();

// Whether some process listens on TCP port `port` of 127.0.0.1, read from
// /proc/net/tcp: unlike a trial connect, it does not count as a client.
bool IsListening(int port);

// Waits up to `seconds` for the child `pid` to end and reaps it. True when
// it ended; its wait status goes to `*status` when not null.
bool WaitForExit(pid_t pid, double seconds, int* status = nullptr);

// Ends the child `pid`: `sig` first, then SIGKILL after `seconds`; reaps it.
void EndChild(pid_t pid, int sig, double seconds);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_LOOPBACK_H
