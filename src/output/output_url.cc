#include "output/output_url.h"

#include <strings.h>

#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include "log/logger.h"
#include "output/network_io.h"
#include "platform/av_error.h"

namespace zeva {
namespace {

WriterResult Fail(int64_t code, std::string message) { return {code, std::move(message), true}; }

}  // namespace

bool StartsWithNoCase(const char* s, const char* prefix) {
  return s != nullptr && strncasecmp(s, prefix, std::strlen(prefix)) == 0;
}

bool EndsWithNoCase(const char* s, const char* suffix) {
  if (s == nullptr) return false;
  const size_t n = std::strlen(s), m = std::strlen(suffix);
  return n >= m && strcasecmp(s + n - m, suffix) == 0;
}

UrlKind ClassifyUrl(const char* url) {
  if (url == nullptr) return UrlKind::kNone;
  if (EndsWithNoCase(url, ".mp4")) return UrlKind::kMp4;
  if (EndsWithNoCase(url, ".m3u8")) return UrlKind::kM3u8;
  if (StartsWithNoCase(url, "rtmp://")) return UrlKind::kRtmp;
  if (StartsWithNoCase(url, "rtsp://")) return UrlKind::kRtsp;
  return UrlKind::kOther;
}

WriterResult CloneOutputContext(const AVFormatContext* main, const char* url, int timeout_sec,
                                IoInterrupt* io, OutputFormatPtr* out) {
  if (main == nullptr || url == nullptr || *url == '\0') return Fail(-1, "clone: invalid paramters");

  AVFormatContext* raw = nullptr;
  if (ClassifyUrl(main->url) == ClassifyUrl(url)) {
    if (avformat_alloc_output_context2(&raw, main->oformat, nullptr, url) < 0 || raw == nullptr) {
      return Fail(-2, std::string("Could not create output context: ") + url);
    }
  } else {
    // Stream URLs name no container; their protocol decides it, as for the
    // main output.
    const UrlKind kind = ClassifyUrl(url);
    const AVOutputFormat* fmt = kind == UrlKind::kRtmp   ? av_guess_format("flv", nullptr, nullptr)
                                : kind == UrlKind::kRtsp ? av_guess_format("rtsp", nullptr, nullptr)
                                                         : av_guess_format(nullptr, url, nullptr);
    if (fmt == nullptr) return Fail(-3, "guss format is null");
    const int r = avformat_alloc_output_context2(&raw, fmt, nullptr, url);
    if (r < 0 || raw == nullptr) {
      ZEVA_LOG(kLogError, "Error ###: res=%d, %s\n", r, av_error_text(r));
      return Fail(-4, std::string("create context failed: ") + av_error_text(r) + ", " + url);
    }
  }
  OutputFormatPtr oc(raw);

  for (unsigned i = 0; i < main->nb_streams; ++i) {
    const AVStream* in = main->streams[i];
    AVStream* st = avformat_new_stream(oc.get(), avcodec_find_encoder(in->codecpar->codec_id));
    if (st == nullptr) return Fail(-5, std::string("failed create output stream: ") + url);
    const int r = avcodec_parameters_copy(st->codecpar, in->codecpar);
    if (r < 0) {
      ZEVA_LOG(kLogError, "Error ###: res=%d, %s\n", r, av_error_text(r));
      return Fail(-5, std::string("failed create output stream: ") + url);
    }
    st->time_base = in->time_base;
    st->codecpar->codec_tag = 0;
  }

  av_dump_format(oc.get(), 0, url, 1);
  const int r = OpenOutputIo(oc.get(), url, timeout_sec, io);
  if (r < 0) {
    ZEVA_LOG(kLogError, "Error ###: res=%d, %s\n", r, av_error_text(r));
    return Fail(-6, std::string("io open failed: ") + av_error_text(r) + ", " + url);
  }
  *out = std::move(oc);
  return {};
}

void ParseMetaInfo(const char* text, AVDictionary** dict) {
  if (text == nullptr || *text == '\0') return;
  qel::err_print(stderr, "== MetaInfo: %s\n\n", text);
  std::string all(text);
  size_t start = 0;
  while (start <= all.size()) {
    size_t end = all.find(';', start);
    if (end == std::string::npos) end = all.size();
    const std::string item = all.substr(start, end - start);
    const size_t colon = item.find(':');
    if (colon != std::string::npos && colon > 0) {
      const std::string key = item.substr(0, colon), value = item.substr(colon + 1);
      qel::err_print(stderr, "%s ---> %s\n", key.c_str(), value.c_str());
      av_dict_set(dict, key.c_str(), value.c_str(), 0);
    }
    start = end + 1;
  }
  std::fflush(stderr);
}

}  // namespace zeva
