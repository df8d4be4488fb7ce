// Reads a recording's index file back and checks it against what ffprobe, an
// independent reader, finds in the finished movie.
#ifndef ZEVA_TESTS_SUPPORT_INDEX_CHECK_H
#define ZEVA_TESTS_SUPPORT_INDEX_CHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "index/index_record.h"

namespace zeva::test {

// An index file as the repair will see it.
struct IndexFile {
  bool ok = false;                        // the file could be read
  std::string header;                     // first line, without its line feed
  int version = 0;                        // the number after "version=" on it, else 0
  std::vector<std::string> stream_lines;  // the "{...}" lines after the header
  int audio_stream = -1;                  // "index" of the audio stream line
  int64_t audio_frame_size = 0;           // its "frame_size"
  std::vector<std::string> record_lines;  // the rest, without line feeds
  bool last_line_ended = false;           // the file ends with a line feed
  std::vector<IndexRecord> records;       // every record, file order
  std::vector<IndexPacket> packets;       // the records decoded
};

// Reads `path`: header and stream lines, then every record of the record
// lines through the library's reader and decoder. Works on the file of a
// recording still running (complete lines only are there).
IndexFile ReadIndexFile(const std::string& path);

// Checks the index file `index` of the finished MP4 `mp4`, reporting gtest
// failures. The header is version 2; there is one compact JSON stream line
// per stream of the movie, members in the documented order, agreeing with
// ffprobe on type, codec, time base and size or sample rate; every full
// record line is 961..1023 characters long. Then, in file order, every
// packet but the last has a record with its stream, position, size, pts, key
// flag and duration (an empty duration before an audio packet reads back as
// the frame size on audio records and 0 on others; 0 on a video record means
// the packet had none and the muxer derived it), its dts where dts equals
// pts, and a dts field holding exactly the dts delta of its class (empty when
// that equals the pts delta).
// With `any_video_duration`, video durations are not compared: the packet
// path gives each frame the host's interval since the previous one, where
// the muxer derives the interval to the next.
void ExpectIndexMatchesProbe(const std::string& mp4, const std::string& index,
                             bool any_video_duration = false);

}  // namespace zeva::test

#endif  // ZEVA_TESTS_SUPPORT_INDEX_CHECK_H
