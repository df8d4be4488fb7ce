#include "support/loopback.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

namespace zeva::test {

int FreeLoopbackPort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  if (s < 0) return 0;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(s);
  return port;
}

namespace {

// Whether some process listens on TCP port `port` of 127.0.0.1, read from
// /proc/net/tcp: unlike a trial connect, it does not count as a client.
bool IsListening(int port) {
  // Lines read "  0: 0100007F:B814 00000000:0000 0A ...": local address and
  // port in hex, then the remote one, then the state (0A is LISTEN).
  char local[32];
  std::snprintf(local, sizeof local, "0100007F:%04X", port);
  std::ifstream in("/proc/net/tcp");
  std::string line;
  while (std::getline(in, line)) {
    char addr[64] = {}, remote[64] = {}, state[8] = {};
    if (std::sscanf(line.c_str(), " %*[^:]: %63s %63s %7s", addr, remote, state) == 3 &&
        std::string(addr) == local && std::string(state) == "0A")
      return true;
  }
  return false;
}

}  // namespace

pid_t SpawnListening(const std::vector<std::string>& argv, int port, const std::string& log) {
  if (port == 0 || argv.empty()) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    if (const int fd = log.empty() ? -1 : open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644); fd >= 0) {
      dup2(fd, STDERR_FILENO);
      dup2(fd, STDOUT_FILENO);
    }
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (pid > 0 && !IsListening(port)) {
    if (WaitForExit(pid, 0)) return -1;
    if (std::chrono::steady_clock::now() > deadline) {
      EndChild(pid, SIGKILL, 10);
      return -1;
    }
    // Polling an external process that offers nothing to wait on.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return pid;
}

bool WaitForExit(pid_t pid, double seconds, int* status) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  int st = 0;
  // A child offers nothing to wait on with a deadline: poll it.
  while (waitpid(pid, &st, WNOHANG) != pid) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (status != nullptr) *status = st;
  return true;
}

void EndChild(pid_t pid, int sig, double seconds) {
  if (pid <= 0) return;
  kill(pid, sig);
  if (WaitForExit(pid, seconds)) return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace zeva::test
