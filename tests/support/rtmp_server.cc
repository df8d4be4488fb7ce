#include "support/rtmp_server.h"

#include "support/loopback.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace zeva::test {
namespace {

constexpr const char* kModule = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char* kNginx = "/usr/sbin/nginx";

// Counts lines of nginx's log that contain `what`.
int CountInLog(const std::string& log, const char* what) {
  std::ifstream in(log);
  std::string line;
  int n = 0;
  while (std::getline(in, line)) n += line.find(what) != std::string::npos;
  return n;
}

}  // namespace

bool RtmpServer::Available() { return access(kModule, R_OK) == 0 && access(kNginx, X_OK) == 0; }

RtmpServer::RtmpServer(const std::string& dir) : dir_(dir), port_(FreeLoopbackPort()) {
  if (port_ == 0 || !Available()) return;
  const std::string conf = dir_ + "/nginx.conf";
  std::ofstream(conf) << "load_module " << kModule << ";\n"
                      << "daemon off; master_process off;\n"
                      << "error_log " << dir_ << "/nginx-error.log info;\n"
                      << "pid " << dir_ << "/nginx.pid;\n"
                      << "events {}\n"
                      << "rtmp { server { listen 127.0.0.1:" << port_ << ";\n"
                      << "  application live { live on; record all; record_path " << dir_
                      << "; record_unique off; } } }\n";
  pid_ = SpawnListening({kNginx, "-q", "-p", dir_, "-c", conf}, port_, "");
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
  EndChild(pid_, SIGQUIT, 10);  // SIGQUIT is graceful: it finishes the recordings
  pid_ = -1;
}

void RtmpServer::Kill() {
  EndChild(pid_, SIGKILL, 10);
  pid_ = -1;
}

}  // namespace zeva::test
