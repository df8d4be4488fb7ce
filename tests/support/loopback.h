// Helpers for the servers tests start on 127.0.0.1.
#ifndef ZEVA_TESTS_SUPPORT_LOOPBACK_H
#define ZEVA_TESTS_SUPPORT_LOOPBACK_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace zeva::test {

// A TCP port of 127.0.0.1 that was free a moment ago; 0 when none was found.
int FreeLoopbackPort();

// Runs `argv` as a child, its output into the file `log` when not empty, and
// waits (at most 10 s) until it listens on TCP port `port` of 127.0.0.1.
// The child's pid, or -1 when it ended or never listened (it is killed then).
pid_t SpawnListening(const std::vector<std::string>& argv, int port, const std::string& log);

// Waits up to `seconds` for the child `pid` to end and reaps it. True when
// it ended; its wait status goes to `*status` when not null.
bool WaitForExit(pid_t pid, double seconds, int* status = nullptr);

// Ends the child `pid`: `sig` first, then SIGKILL after `seconds`; reaps it.
void EndChild(pid_t pid, int sig, double seconds);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_LOOPBACK_H
