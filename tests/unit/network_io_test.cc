#include "output/network_io.h"

#include <gtest/gtest.h>

#include <string>

extern "C" {
#include <libavutil/dict.h>
}

#include "platform/av_ptr.h"

namespace zeva {
namespace {

// The time-out options each kind of output is opened with.
TEST(NetworkTimeoutOptions, PerUrlKind) {
  struct Row {
    const char* url;
    int timeout_sec;
    const char* expected;  // "key=value;" in dictionary order
  };
  for (const Row row : {Row{"rtmp://h/live/x", 2, "rw_timeout=2000000;"},
                        Row{"RTMP://h/live/x", 0, ""},
                        Row{"rtsp://h/live", 3, "rtsp_transport=tcp;timeout=3000000;"},
                        Row{"rtsp://h/live", 0, "rtsp_transport=tcp;"},
                        Row{"movie.mp4", 5, ""}, Row{nullptr, 5, ""}}) {
    AVDictionary* raw = nullptr;
    SetNetworkTimeoutOptions(row.url, row.timeout_sec, &raw);
    DictionaryPtr opts(raw);
    std::string got;
    for (const AVDictionaryEntry* e = nullptr;
         (e = av_dict_get(opts.get(), "", e, AV_DICT_IGNORE_SUFFIX)) != nullptr;)
      got += std::string(e->key) + "=" + e->value + ";";
    EXPECT_EQ(got, row.expected) << (row.url ? row.url : "null") << " " << row.timeout_sec;
  }
}

}  // namespace
}  // namespace zeva
