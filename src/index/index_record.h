// Packet records of the recording index file: the text one record takes in a
// record line, how a line is read back record by record, and how the stored
// deltas become timestamps again.
//
// A record is seven fields, "stream,position,size,pts,dts,duration,key;".
// Timestamps are stored as deltas against the previous packet of the same
// class: the audio stream is one class, every other stream the other. In
// version 2 a field whose value is 0 is left empty, the position appears only
// in the first record of a file, and an empty dts means "dts equals pts".
#ifndef ZEVA_INDEX_INDEX_RECORD_H
#define ZEVA_INDEX_INDEX_RECORD_H

#include <cstddef>
#include <cstdint>

namespace zeva {

// The record syntax written today. Version 1 files hold every field in full.
inline constexpr int kIndexVersion = 2;

// Longest text of one record: seven fields at their widest ("-2147483648" for
// the 32-bit ones, "-9223372036854775808" for the 64-bit ones), six commas and
// the ";". Real records are far shorter.
inline constexpr size_t kIndexRecordMaxText = 3 * 11 + 4 * 20 + 7;

// One record as stored: the values of its fields, deltas not yet resolved.
// An empty field reads as 0.
struct IndexRecord {
  int stream = 0;
  int64_t position = 0;   // byte offset of the packet; 0 when not given
  int size = 0;           // bytes the muxer wrote for the packet
  int64_t pts_delta = 0;  // against the previous pts of the class
  int64_t dts_delta = 0;  // against the previous dts of the class
  int64_t duration = 0;
  int key = 0;  // non-zero for a key frame
};

// Appends the version 2 text of `record` to `line`, a NUL-terminated text of
// `*length` bytes in a buffer of `capacity` bytes, and advances `*length`.
// Zero values become empty fields; the dts field is also left empty when the
// dts delta equals the pts delta, and the duration when `empty_duration`. The
// caller gives a position only for the first record of a file.
// Returns false, leaving `line` and `*length` as they were, when the record
// and its terminating NUL do not fit. Allocates nothing.
[[nodiscard]] bool AppendIndexRecord(char* line, size_t capacity, size_t* length,
                                     const IndexRecord& record, bool empty_duration);

// Reads the record starting at `p` inside a NUL-terminated record line, in the
// syntax of `version` (1: every field present; 2: empty fields are 0). Fills
// `*out` and returns where the next record begins (just past the ";"). Returns
// null, with `*out` unspecified, when the line is finished: `p` is at its end
// (NUL, CR or LF), the record is cut short, version 1 finds no number, or the
// version is neither 1 nor 2. Numbers too large for their field are clamped
// to its range. Any bytes are accepted; nothing is read past the NUL, and
// nothing is allocated.
const char* ReadIndexRecord(const char* p, int version, IndexRecord* out);

// A record resolved into the packet it describes.
struct IndexPacket {
  int stream = 0;
  int64_t position = 0;  // where its bytes begin in the media file
  int size = 0;
  int64_t pts = 0;
  int64_t dts = 0;
  int64_t duration = 0;
  bool key = false;
};

// Turns the records of one index file, in file order, into packets. Keeps the
// running pts and dts of the two classes (both starting at 0) and where the
// previous packet's bytes ended.
class IndexRecordDecoder {
 public:
  // `audio_stream` is the stream index of the audio stream line (-1 when the
  // file has none); `audio_frame_size` replaces the zero duration of its
  // records.
  IndexRecordDecoder(int audio_stream, int64_t audio_frame_size)
      : audio_stream_(audio_stream), audio_frame_size_(audio_frame_size) {}

  // The packet of the next record. pts is the delta plus the class's previous
  // pts; dts likewise when the dts field is non-zero, otherwise equal to that
  // pts. A zero duration of an audio record becomes the frame size. A record
  // with a position starts there; otherwise its bytes follow the previous
  // record's. Wraps around instead of overflowing on absurd values.
  IndexPacket Decode(const IndexRecord& record);

 private:
  struct ClassTimes {
    int64_t pts = 0;
    int64_t dts = 0;
  };

  int audio_stream_;
  int64_t audio_frame_size_;
  ClassTimes audio_;
  ClassTimes video_;
  int64_t next_position_ = 0;
};

}  // namespace zeva

#endif  // ZEVA_INDEX_INDEX_RECORD_H
