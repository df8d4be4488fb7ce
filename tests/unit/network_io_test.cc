#include "output/network_io.h"

#include <gtest/gtest.h>

#include <string>

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/dict.h>
}

#include "platform/av_ptr.h"

namespace zeva {
namespace {

TEST(IoInterrupt, TriggerDeadlineAndReset) {
  FakeClock clock(1000);
  IoInterrupt io(clock);
  const AVIOInterruptCB cb = io.callback();
  EXPECT_EQ(cb.callback(cb.opaque), 0);
  io.TriggerAfter(500);
  io.TriggerAfter(900);  // a later deadline does not postpone the earlier one
  clock.AdvanceUs(499);
  EXPECT_EQ(cb.callback(cb.opaque), 0);
  clock.AdvanceUs(1);
  EXPECT_EQ(cb.callback(cb.opaque), 1);
  io.Reset();
  EXPECT_FALSE(io.triggered());
  io.Trigger();
  io.TriggerAfter(10);  // a trigger stays in force
  EXPECT_TRUE(io.triggered());
}

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
  EXPECT_TRUE(IsNetworkUrl("rtsp://h"));
  EXPECT_FALSE(IsNetworkUrl("http://h/x.flv"));
}

}  // namespace
}  // namespace zeva
