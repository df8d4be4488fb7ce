#include "encode/hardware_encoder.h"

#include <mutex>
#include <unordered_map>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixfmt.h>
}

#include "log/logger.h"
#include "platform/av_error.h"
#include "platform/av_ptr.h"

namespace zeva {
namespace {

constexpr HwEncoder kHwEncoders[] = {
    {0, "h264_nvenc"},
    {1, "h264_amf"},
    {2, "h264_qsv"},
    {3, "h264_mf"},
};

struct ProbeKey {
  int id;
  int width;
  int height;
  int pix_fmt;
  bool operator==(const ProbeKey& o) const {
    return id == o.id && width == o.width && height == o.height && pix_fmt == o.pix_fmt;
  }
};

struct ProbeKeyHash {
  // Unsigned arithmetic: large sizes wrap instead of overflowing an int.
  size_t operator()(const ProbeKey& k) const noexcept {
    return static_cast<size_t>(k.id) * 100 +
           static_cast<size_t>(k.width) * static_cast<size_t>(k.height) +
           static_cast<size_t>(k.pix_fmt);
  }
};

// One cached answer. The first caller of a key runs the probe inside
// `once`; callers of the same key that arrive meanwhile wait there, so each
// key opens its encoder once and logs once.
struct ProbeEntry {
  std::once_flag once;
  bool usable = false;
};

// The map is guarded by `mutex` for lookups and insertions only; entries are
// never erased and nodes of an unordered_map stay put across rehashing, so an
// entry can be used after the lock is released.
struct ProbeCache {
  std::mutex mutex;
  std::unordered_map<ProbeKey, ProbeEntry, ProbeKeyHash> map{8};
};

ProbeCache& cache() {
  static ProbeCache instance;
  return instance;
}

// `wanted` when the encoder lists it or lists nothing; otherwise the first
// listed format, which is AV_PIX_FMT_NONE for an empty list.
int pick_pix_fmt(const AVCodec* codec, int wanted) {
  const enum AVPixelFormat* formats = codec->pix_fmts;
  if (formats == nullptr) return wanted;
  for (const enum AVPixelFormat* p = formats; *p != AV_PIX_FMT_NONE; ++p) {
    if (*p == wanted) return wanted;
  }
  return formats[0];
}

// Opens and frees a throw-away encoder context; logs the outcome.
bool try_open(const HwEncoder& entry, int width, int height, int pix_fmt) {
  bool usable = false;
  const AVCodec* codec = avcodec_find_encoder_by_name(entry.name);
  if (codec == nullptr) {
    ZEVA_LOG(kLogError, "--- 没有找到 '%s' 编码器", entry.name);
  } else if (CodecContextPtr ctx{avcodec_alloc_context3(codec)}; ctx == nullptr) {
    ZEVA_LOG(kLogError, "--- 准备编码器'%s' 出错", entry.name);
  } else {
    ctx->width = width;
    ctx->height = height;
    ctx->codec_type = codec->type;
    ctx->time_base = AVRational{1, 25};
    ctx->framerate = AVRational{25, 1};
    ctx->sample_aspect_ratio = AVRational{1, 1};
    ctx->pix_fmt = static_cast<AVPixelFormat>(pick_pix_fmt(codec, pix_fmt));
    ctx->bit_rate = 2000000;
    const int r = avcodec_open2(ctx.get(), codec, nullptr);
    if (r < 0) {
      ZEVA_LOG(kLogError, "--- 打开编码器 '%s' 出错: %s", entry.name, av_error_text(r));
    } else {
      usable = true;
    }
  }
  ZEVA_LOG(kLogError, "=== 硬件编码器 '%s' enable = %d", entry.name, usable ? 1 : 0);
  return usable;
}

}  // namespace

const HwEncoder* hw_encoders(size_t* count) {
  if (count != nullptr) *count = sizeof kHwEncoders / sizeof kHwEncoders[0];
  return kHwEncoders;
}

bool probe_hw_encoder(const HwEncoder* entry, int width, int height, int pix_fmt) {
  if (entry == nullptr || width < 4 || height < 4) return false;

  ProbeCache& c = cache();
  ProbeEntry* found;
  {
    std::lock_guard<std::mutex> lock(c.mutex);
    found = &c.map.try_emplace(ProbeKey{entry->id, width, height, pix_fmt}).first->second;
  }
  // Opening a hardware encoder is slow, so it runs outside the map's lock.
  std::call_once(found->once,
                 [&] { found->usable = try_open(*entry, width, height, pix_fmt); });
  return found->usable;
}

}  // namespace zeva
