// The receiving end of a live output in tests: nginx-rtmp or the RTSP
// receiver, behind one interface.
#ifndef ZEVA_TESTS_SUPPORT_LIVE_PEER_H
#define ZEVA_TESTS_SUPPORT_LIVE_PEER_H

#include <memory>
#include <string>

#include "support/rtmp_server.h"
#include "support/rtsp_receiver.h"

namespace zeva::test {

enum class Proto { kRtmp, kRtsp };

class Peer {
 public:
  Peer(Proto proto, const std::string& dir)
      : rtmp_(proto == Proto::kRtmp ? std::make_unique<RtmpServer>(dir) : nullptr),
        rtsp_(proto == Proto::kRtsp ? std::make_unique<RtspReceiver>(dir) : nullptr) {}
  // Why a test of `proto` must be skipped, or null when its server is here.
  static const char* Missing(Proto proto) {
    if (proto == Proto::kRtmp && !RtmpServer::Available())
      return "nginx with its RTMP module is not installed (scripts/bootstrap installs it)";
    if (proto == Proto::kRtsp && !RtspReceiver::Available())
      return "ffmpeg is not installed (scripts/bootstrap installs it)";
    return nullptr;
  }
  bool ok() const { return rtmp_ ? rtmp_->ok() : rtsp_->ok(); }
  std::string Url() const { return rtmp_ ? rtmp_->Url("live") : rtsp_->Url(); }
  // What the server received, complete once Stop() returned.
  std::string Received() const { return rtmp_ ? rtmp_->RecordPath("live") : rtsp_->RecordPath(); }
  void Stop() { rtmp_ ? rtmp_->Stop() : rtsp_->Stop(); }

 private:
  std::unique_ptr<RtmpServer> rtmp_;
  std::unique_ptr<RtspReceiver> rtsp_;
};

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_LIVE_PEER_H
