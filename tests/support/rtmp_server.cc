#include "support/rtmp_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace zeva::test {
namespace {

constexpr const char* kModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";

int FreePort() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
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

bool Accepts(int port) {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(s);
  return ok;
}

// Counts lines of nginx's log that contain `what`.
int CountInLog(const std::string& log, const char* what) {
  std::ifstream in(log);
  std::string line;
  int n = 0;
  while (std::getline(in, line)) n += line.find(what) != std::string::npos;
  return n;
}

}  // namespace

RtmpServer::RtmpServer(const std::string& dir) : dir_(dir), port_(FreePort()) {
  if (port_ == 0 || access(kModule, R_OK) != 0) return;
  const std::string conf = dir_ + "/nginx.conf";
  std::ofstream(conf) << "load_module " << kModule << ";\n"
                      << "daemon off; master_process off;\n"
                      << "error_log " << dir_ << "/nginx-error.log info;\n"
                      << "pid " << dir_ << "/nginx.pid;\n"
                      << "events {}\n"
                      << "rtmp { server { listen 127.0.0.1:" << port_ << ";\n"
                      << "  application live { live on; record all; record_path " << dir_
                      << "; record_unique off; } } }\n";
  pid_ = fork();
  if (pid_ == 0) {
    execl("/usr/sbin/nginx", "nginx", "-q", "-p", dir_.c_str(), "-c", conf.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!Accepts(port_)) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_ || std::chrono::steady_clock::now() > deadline) {
      Stop();
      pid_ = -1;
      return;
    }
    // Polling an external process that offers nothing to wait on.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

RtmpServer::~RtmpServer() { Stop(); }

std::string RtmpServer::Url(const std::string& name) const {
  return "rtmp://127.0.0.1:" + std::to_string(port_) + "/live/" + name;
}

std::string RtmpServer::RecordPath(const std::string& name) const {
  return dir_ + "/" + name + ".flv";
}

void RtmpServer::Stop() {
  if (pid_ <= 0) return;
  // A publisher that has just closed may still have data in the server's
  // socket buffer; a server told to quit then drops it. Wait until every
  // client the server saw has gone (bounded), then quit.
  const std::string log = dir_ + "/nginx-error.log";
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (CountInLog(log, "disconnect") < CountInLog(log, "client connected") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(pid_, SIGQUIT);  // graceful: finishes the recordings
  deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  int status;
  while (waitpid(pid_, &status, WNOHANG) != pid_) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  pid_ = -1;
}

}  // namespace zeva::test
