// Length-prefixed H.264 into Annex B, for the packet recording's "h264"
// input.
#ifndef ZEVA_PACKET_ANNEXB_FILTER_H
#define ZEVA_PACKET_ANNEXB_FILTER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/av_ptr.h"

namespace zeva {

// The H.264 parameter sets a host declares for length-prefixed packets:
// either an AVC decoder configuration record (`extradata`) or the raw SPS
// and PPS (with or without a leading start code). Pointers are borrowed.
struct ParameterSets {
  const uint8_t* sps;
  int sps_len;
  const uint8_t* pps;
  int pps_len;
  const uint8_t* extradata;
  int extradata_len;
};

namespace h264 {

// FFmpeg's "h264_mp4toannexb" filter: 4-byte (or as the record says)
// length prefixes become start codes, and the parameter sets go in front of
// each IDR picture. Not thread-safe: one thread filters.
class AnnexBFilter {
 public:
  // A filter for packets described by `sets`: its `extradata` when given,
  // otherwise a record built from `sps` and `pps`. Null (logged) when
  // neither is given or FFmpeg refuses them.
  static std::unique_ptr<AnnexBFilter> create(const ParameterSets& sets);

  // The AVC decoder configuration record (ISO/IEC 14496-15) for `sps` and
  // `pps` (start codes in front of them dropped): 4-byte lengths, one SPS,
  // one PPS (none when `pps` is empty). Empty when the SPS is shorter than 4
  // bytes or either set is longer than 65535.
  static std::vector<uint8_t> make_avcc(const uint8_t* sps, int sps_len, const uint8_t* pps,
                                        int pps_len);

  // Logs "~ bfilter()".
  virtual ~AnnexBFilter();
  AnnexBFilter(const AnnexBFilter&) = delete;
  AnnexBFilter& operator=(const AnnexBFilter&) = delete;

  // Filters one host packet (`data` borrowed for the call) and hands `sink`
  // each resulting packet (valid during the call) with pts `usec`, `usec` +
  // 1, ... in order (FFmpeg's filter gives one packet per host packet, so in
  // practice `usec`; pictures sharing a host packet stay together). False
  // for an empty packet, when FFmpeg refuses the packet, or when `sink`
  // returns false (then nothing further is handed on for it).
  bool filter(const uint8_t* data, int nbytes, int64_t usec,
              const std::function<bool(const uint8_t* data, int nbytes, int64_t pts)>& sink);

 private:
  AnnexBFilter() = default;

  BsfPtr bsf_;
  PacketPtr pkt_;
};

}  // namespace h264
}  // namespace zeva

#endif  // ZEVA_PACKET_ANNEXB_FILTER_H
