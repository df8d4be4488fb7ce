#include "output/network_io.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/opt.h>
}

#include "output/output_url.h"
#include "platform/av_ptr.h"

namespace zeva {

IoInterrupt::IoInterrupt(const Clock& clock) : clock_(clock) {}

AVIOInterruptCB IoInterrupt::callback() { return {&IoInterrupt::Check, this}; }

void IoInterrupt::Trigger() { deadline_us_ = INT64_MIN; }

void IoInterrupt::TriggerAfter(int64_t timeout_us) {
  const int64_t at = clock_.NowUs() + timeout_us;
  int64_t current = deadline_us_.load();
  while (at < current && !deadline_us_.compare_exchange_weak(current, at)) {
  }
}

void IoInterrupt::Reset() { deadline_us_ = INT64_MAX; }

bool IoInterrupt::triggered() const {
  const int64_t deadline = deadline_us_.load();
  if (deadline == INT64_MAX) return false;  // the common case reads no clock
  return deadline == INT64_MIN || clock_.NowUs() >= deadline;
}

int IoInterrupt::Check(void* opaque) {
  return static_cast<const IoInterrupt*>(opaque)->triggered() ? 1 : 0;
}

bool IsNetworkUrl(const char* url) {
  return StartsWithNoCase(url, "rtmp://") || StartsWithNoCase(url, "rtsp://");
}

void SetNetworkTimeoutOptions(const char* url, int timeout_sec, AVDictionary** opts) {
  const int64_t us = int64_t{timeout_sec} * 1000000;
  if (StartsWithNoCase(url, "rtmp://")) {
    if (timeout_sec > 0) av_dict_set_int(opts, "rw_timeout", us, 0);
  } else if (StartsWithNoCase(url, "rtsp://")) {
    // Interleaved in the one TCP connection, the media passes any firewall
    // and is never lost the way UDP datagrams are.
    av_dict_set(opts, "rtsp_transport", "tcp", 0);
    if (timeout_sec > 0) av_dict_set_int(opts, "timeout", us, 0);
  }
}

int OpenOutputIo(AVFormatContext* oc, const char* url, int timeout_sec, IoInterrupt* io) {
  AVDictionary* raw = nullptr;
  SetNetworkTimeoutOptions(url, timeout_sec, &raw);
  DictionaryPtr opts(raw);
  if (IsNetworkUrl(url) && io != nullptr) oc->interrupt_callback = io->callback();
  if (oc->oformat->flags & AVFMT_NOFILE) {
    // The muxer connects in avformat_write_header, with its own options.
    if (oc->priv_data == nullptr) return 0;
    raw = opts.release();
    const int r = av_opt_set_dict(oc->priv_data, &raw);
    opts.reset(raw);
    return r;
  }
  raw = opts.release();
  const int r = avio_open2(&oc->pb, url, AVIO_FLAG_WRITE, &oc->interrupt_callback, &raw);
  opts.reset(raw);
  return r;
}

}  // namespace zeva
