#include "output/network_io.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

extern "C" {
#include <libavutil/dict.h>
}

#include "platform/av_ptr.h"

namespace {

// The time-out options each kind of output is opened with, "key=value;" in
// dictionary order.
TEST(NetworkTimeoutOptions, PerUrlKind) {
  for (const auto& [url, timeout_sec, expected] :
       {std::tuple<const char*, int, std::string>{"rtmp://h/live/x", 2, "rw_timeout=2000000;"},
        {"RTMP://h/live/x", 0, ""}, {"rtsp://h/live", 3, "rtsp_transport=tcp;timeout=3000000;"},
        {"rtsp://h/live", 0, "rtsp_transport=tcp;"}, {"movie.mp4", 5, ""}}) {
    AVDictionary* raw = nullptr;
    zeva::SetNetworkTimeoutOptions(url, timeout_sec, &raw);
    zeva::DictionaryPtr opts(raw);
    std::string got;
    for (const AVDictionaryEntry* e = nullptr; (e = av_dict_get(opts.get(), "", e, AV_DICT_IGNORE_SUFFIX));)
      got += std::string(e->key) + "=" + e->value + ";";
    EXPECT_EQ(got, expected) << url << " " << timeout_sec;
  }
}

}  // namespace
