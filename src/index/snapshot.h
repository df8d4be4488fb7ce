// Writes the index file beside an MP4 recording while it is muxed, so that
// the recording can be rebuilt if the process ends before the trailer.
#ifndef ZEVA_INDEX_SNAPSHOT_H
#define ZEVA_INDEX_SNAPSHOT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct AVFormatContext;
struct AVPacket;

namespace zeva {

// The index writer of one recording. The component that writes the output
// tells it of the muxer's header and of every packet just before handing the
// packet to av_write_frame; the snapshot reads the movie's write position
// there, so each packet's record (offset, size, timestamp deltas, key flag) is
// complete once the next packet arrives. Records collect in a fixed buffer
// and reach the file a line of a little over 960 characters at a time, after
// the movie's own buffered bytes, so a killed process loses at most the
// buffered records and the last packet.
//
// Order of use: construct, open, attach (after the output's I/O is open,
// before its header), on_header, on_packet per packet, av_write_trailer,
// destroy. One thread drives an instance; instances share nothing, so
// recordings run side by side.
class Snapshot {
 public:
  Snapshot();
  // Writes whatever records are buffered, as they stand (no line feed), and
  // closes the index file if one is open. The bound context may be gone.
  virtual ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // Creates or truncates the index file at `index_path` (text mode). When a
  // file is already open, logs "already opened !" and returns false, keeping
  // it. A failed open returns false without a log line; the caller reports it.
  bool open(const char* index_path);

  // Binds to `oc`, an output context whose I/O is open and whose header is
  // not written yet. Fails (false, with an error-level log line) when no index
  // file is open ("---> moov: fp is nullptr!"), when `oc` is null ("---> moov:
  // oc==null") or when it has no I/O context ("---> moov: pb==null, not
  // support"). The context is not modified. Call once.
  bool attach(AVFormatContext* oc);

  // Call right after avformat_write_header(oc) succeeded: writes the header
  // line and one line per stream (time bases as the muxer left them), each
  // flushed to disk. Ignored for any context but the bound one.
  void on_header(AVFormatContext* oc);

  // Call right before av_write_frame(oc, pkt) with the packet in stream time
  // base: records the previous packet, whose size is now known, and keeps
  // this one's facts for the next call, so the last packet of a recording is
  // never recorded. Ignored for a context other than the bound one and for a
  // null packet. Allocates nothing; the file is written about once per 960
  // bytes of records. Write errors of the index file are ignored.
  void on_packet(AVFormatContext* oc, const AVPacket* pkt);

 private:
  // Records wait here; a full line is written once it passes kLineLimit.
  static constexpr size_t kLineCapacity = 1024;
  static constexpr size_t kLineLimit = 960;

  struct ClassTimes {
    int64_t pts = 0;
    int64_t dts = 0;
  };

  void WriteHeaderLines(AVFormatContext* oc);
  void FlushRecordLine(AVFormatContext* oc);

  FILE* file_ = nullptr;
  AVFormatContext* oc_ = nullptr;  // the bound context; not owned
  char line_[kLineCapacity];
  size_t line_length_ = 0;

  int64_t packets_seen_ = 0;
  // The packet seen last, recorded when the next one arrives.
  int prev_stream_ = 0;
  int prev_key_ = 0;
  int64_t prev_position_ = 0;
  int64_t prev_pts_delta_ = 0;
  int64_t prev_dts_delta_ = 0;
  int64_t prev_duration_ = 0;

  ClassTimes audio_;  // the audio stream's last pts and dts
  ClassTimes video_;  // the same for every other stream
  int audio_stream_ = -1;
  int64_t audio_frame_size_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_INDEX_SNAPSHOT_H
