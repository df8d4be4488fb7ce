// One packet recording: the host's packets are rebased to the start of each
// stream and pushed into the elementary-stream inputs; a worker thread opens
// the inputs once they can be probed, then the outputs, and routes every
// demuxed packet to them until the inputs end.
#ifndef ZEVA_PACKET_AV_MUX_H
#define ZEVA_PACKET_AV_MUX_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "packet/input_context.h"
#include "packet/output_context.h"
#include "platform/clock.h"
#include "zeva/packet.h"

namespace zeva {

class AACEncoder;
namespace h264 {
class AnnexBFilter;
}

// Threads: the host's (writes, pause, stop; each write function from one
// thread at a time, stop never racing a write), the worker, and one writer
// per output. Status reports may come from any of the library's threads.
class AVMux {
 public:
  // Copies `info` (and the further URLs). `clock` times pauses; it must
  // outlive the muxer.
  AVMux(const MovieInfo2& info, ZEVA2_StatusCallback status_cb, void* user,
        const Clock& clock = SystemClock::Get());
  // Stops the worker if still running, closes inputs and outputs.
  ~AVMux();
  AVMux(const AVMux&) = delete;
  AVMux& operator=(const AVMux&) = delete;

  // Creates the PCM encoder and the Annex B filter the settings ask for and
  // starts the worker. False, with -10 or -11 reported, when one cannot be
  // created; the muxer is then to be destroyed.
  bool start(const MovieInfo2& info);

  // Flushes the sorted packets, ends the inputs after what was queued and
  // joins the worker, which closes every output (trailers written). Blocks.
  void stop();

  bool pause();
  bool resume();
  bool is_paused() const { return pause_start_.load() > 0; }
  // Video's last positive rebased time when it has one, else audio's.
  int64_t movie_time() const;

  // The host's packets (see zeva/packet.h). Host thread, never blocking for
  // long: a full input drops its oldest packet.
  bool write_video_packet(const uint8_t* data, int nbytes, int64_t usec);
  bool write_audio_packet(const uint8_t* data, int nbytes, int64_t usec);
  bool write_audio_pcm(uint8_t* const* planes, int nb_samples, int64_t usec);

  bool aborted() const { return aborted_.load(); }
  int64_t total_video_packets() const { return total_video_npkt_; }
  int64_t total_audio_packets() const { return total_audio_npkt_; }

 private:
  // Logs and reports `code`; a non-zero code marks the recording aborted
  // unless `keep_going` (a failed output while the others record on).
  void pop_status(int code, const char* msg, bool keep_going = false);
  void WorkerMain();
  bool OpenOutputs();
  // usec - (begin + pause drift), setting `begin` on a stream's first packet.
  int64_t Rebase(int64_t usec, std::atomic<int64_t>& begin, std::atomic<int64_t>& time);
  static int Deliver(AVPacket* packet, const AVRational& time_base, const char* name,
                     void* user);

  const Clock& clock_;
  MovieInfo2 info_;
  std::vector<std::string> urls_;  // main first, then the further ones
  ZEVA2_StatusCallback status_cb_;
  void* user_;
  bool keep_on_error_;

  std::atomic<int64_t> pause_start_{0};
  std::atomic<int64_t> pause_drift_{0};
  std::atomic<bool> aborted_{false};
  std::atomic<int64_t> audio_begin_{-1};
  std::atomic<int64_t> video_begin_{-1};
  std::atomic<int64_t> audio_time_{0};
  std::atomic<int64_t> video_time_{0};
  int64_t total_video_npkt_ = 0;
  int64_t total_audio_npkt_ = 0;

  InputContext input_;
  OutputList outputs_;  // the worker's until it is joined
  std::unique_ptr<AACEncoder> aac_encoder_;
  std::unique_ptr<h264::AnnexBFilter> annexb_;
  std::thread worker_;
};

}  // namespace zeva

#endif  // ZEVA_PACKET_AV_MUX_H
