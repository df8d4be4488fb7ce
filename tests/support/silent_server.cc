#include "support/silent_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zeva::test {

SilentServer::SilentServer() {
  fd_ = socket(AF_INET, SOCK_STREAM, 0);
  if (fd_ < 0) return;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);  // port 0: the kernel picks a free one
  socklen_t len = sizeof a;
  if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd_, 16) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    close(fd_);
    fd_ = -1;
    return;
  }
  port_ = ntohs(a.sin_port);
}

SilentServer::~SilentServer() {
  if (fd_ >= 0) close(fd_);
}

bool SilentServer::WaitForClient(double seconds) const {
  // A connection waiting in the backlog makes the listening socket readable.
  pollfd p{fd_, POLLIN, 0};
  return fd_ >= 0 && poll(&p, 1, static_cast<int>(seconds * 1000)) == 1;
}

std::string SilentServer::Url(const std::string& scheme) const {
  return scheme + "://127.0.0.1:" + std::to_string(port_) + "/live/x";
}

}  // namespace zeva::test
