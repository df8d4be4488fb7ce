// Reads a recording index file for the repair: the stream descriptions at
// its head once, then its record lines one at a time.
#ifndef ZEVA_INDEX_MOOV_PARSER_H
#define ZEVA_INDEX_MOOV_PARSER_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace zeva {

// What the video stream line of an index file says. `extradata_b64` is, after
// a successful parse, the base64 of an AVC decoder configuration record.
struct VideoDescription {
  int index = -1;
  std::string codec, format;
  int width = 0, height = 0;
  int tb_num = 0, tb_den = 0;
  std::string extradata_b64;
};

// What the audio stream line says. `index` decides which records belong to
// the audio class; `extradata_b64` is an AudioSpecificConfig in base64.
struct AudioDescription {
  int index = -1;
  std::string codec, format;
  int channels = 0, sample_rate = 0, frame_size = 0;
  int tb_num = 0, tb_den = 0;
  std::string extradata_b64;
};

enum class StreamKind { kVideo, kAudio };

// The index file's reader. `parse` reads the header and stream lines; after
// it succeeded, `next_line` reads the file again from the top and hands out
// the record lines, and `progress` tells how far it has got. Any bytes are
// accepted: what is not a header or stream line ends the head, and record
// lines are handed out as they are for the record reader to judge.
//
// One thread uses an instance. Nothing is allocated per record line.
class MoovParser {
 public:
  // Size of the line buffer, terminating NUL included. A longer line is
  // handed out as several.
  static constexpr size_t kLineSize = 8192;

  MoovParser();
  ~MoovParser();
  MoovParser(const MoovParser&) = delete;
  MoovParser& operator=(const MoovParser&) = delete;

  // Forgets any earlier file, then reads the head of `index_path`: "#" lines
  // (the version is taken from "version=" on the first line; 0 without) and
  // JSON stream lines, up to the first other line. Prepares the extradata:
  // a video configuration record from the SPS and PPS of "ev" (a built-in
  // 1080p Baseline pair when "ev" is empty), an AudioSpecificConfig for AAC
  // LC when the audio "ev" is empty. Returns false, with an error logged,
  // when the file cannot be opened, describes no audio or video stream, or
  // its video extradata holds no SPS and PPS; what was read stays readable.
  bool parse(const char* index_path);

  // The next record line, NUL-terminated and with its line end, valid until
  // the next call; null at the end of the file, when `parse` has not
  // succeeded, or when the file cannot be opened again. The first call
  // reopens the file and skips as many lines as the head had.
  const char* next_line();

  // The forced value when one was set (not negative); otherwise the share of
  // the file before the line last handed out, 1.0 at the end, 0.0 for an
  // empty file.
  double progress() const;
  // Makes `p` the progress; a negative `p` goes back to the computed one.
  void force_progress(double p) { forced_progress_ = p; }

  // Physical line number of the line last handed out (header lines count).
  int line_number() const { return line_number_; }
  int version() const { return version_; }
  bool has_video() const { return has_video_; }
  bool has_audio() const { return has_audio_; }
  const VideoDescription& video() const { return video_; }
  const AudioDescription& audio() const { return audio_; }
  // The described streams, in file order.
  const std::vector<StreamKind>& streams() const { return streams_; }

  // Closes the file and clears everything, as after construction.
  void reset();

 private:
  struct FileClose {
    void operator()(FILE* f) const noexcept;
  };
  using FilePtr = std::unique_ptr<FILE, FileClose>;

  void ReadHead(FILE* f);
  bool ReadStreamLine(const char* line);
  bool PrepareVideoExtradata();
  bool PrepareAudioExtradata();

  std::string path_;  // empty until a parse succeeded
  FilePtr file_;      // open while record lines are handed out
  char line_[kLineSize];
  int header_lines_ = 0;
  int version_ = 0;
  bool has_video_ = false;
  bool has_audio_ = false;
  VideoDescription video_;
  AudioDescription audio_;
  std::vector<StreamKind> streams_;
  int64_t file_size_ = 0;
  int64_t consumed_ = 0;  // where the line last handed out begins
  int line_number_ = 0;
  double forced_progress_ = -1.0;
};

}  // namespace zeva

#endif  // ZEVA_INDEX_MOOV_PARSER_H
