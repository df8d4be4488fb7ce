#include "index/moov_parser.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <nlohmann/json.hpp>

extern "C" {
#include <libavutil/base64.h>
}

#include "log/logger.h"
#include "platform/file.h"

namespace zeva {
namespace {

using Json = nlohmann::json;

// H.264 byte stream standing in for lost video extradata: a Constrained
// Baseline SPS (level 4.0, 1920x1080, frame-only, POC type 2, one reference
// frame, VUI) and its PPS, each behind a four-byte start code. A recording
// without extradata is rebuilt as 1080p Baseline.
constexpr char kDefaultSpsPps[] = "AAAAAWdCwCjaAeAIn5YQAAADABAAAAMCiPGDKgAAAAFozg/I";

// At most this many bytes of extradata are shown in the debug log.
constexpr size_t kHexBytes = 256;

struct HexText {
  char text[3 * kHexBytes + 4];
};

// "%02x," per byte; longer data is cut and ends in "...".
HexText Hex(const std::vector<uint8_t>& data) {
  HexText hex;
  char* w = hex.text;
  const size_t n = std::min(data.size(), kHexBytes);
  for (size_t i = 0; i < n; ++i, w += 3) std::snprintf(w, 4, "%02x,", data[i]);
  std::strcpy(w, data.size() > n ? "..." : "");
  return hex;
}

// Standard base64 of `data`; empty when it cannot be encoded.
std::string EncodeBase64(const std::vector<uint8_t>& data) {
  if (data.empty() || data.size() > INT_MAX / 2) return {};
  std::string text(AV_BASE64_SIZE(data.size()), '\0');
  if (av_base64_encode(text.data(), static_cast<int>(text.size()), data.data(),
                       static_cast<int>(data.size())) == nullptr) {
    return {};
  }
  text.resize(std::strlen(text.c_str()));
  return text;
}

// The bytes of the base64 `text` (decoding stops at a NUL). False when the
// text holds a character outside the alphabet.
bool DecodeBase64(const std::string& text, std::vector<uint8_t>* out) {
  out->clear();
  if (text.empty()) return true;
  if (text.size() > INT_MAX / 2) return false;
  out->resize(static_cast<size_t>(AV_BASE64_DECODE_SIZE(text.size())) + 1);
  const int n = av_base64_decode(out->data(), text.c_str(), static_cast<int>(out->size()));
  if (n < 0) return false;
  out->resize(static_cast<size_t>(n));
  return true;
}

struct NalUnit {
  const uint8_t* data = nullptr;
  size_t size = 0;
};

// Finds the first SPS (with at least its profile, constraint and level
// bytes) and the first PPS among the start-code-delimited NAL units of
// `data`. Each must fit the 16-bit length of the configuration record.
bool FindParameterSets(const std::vector<uint8_t>& data, NalUnit* sps, NalUnit* pps) {
  const uint8_t* const begin = data.data();
  const size_t size = data.size();
  const uint8_t* nal = nullptr;
  auto take = [&](const uint8_t* end) {
    if (nal == nullptr) return;
    // Zero bytes before a start code (trailing zeros, or the first byte of a
    // four-byte start code) belong to no NAL unit.
    while (end > nal && end[-1] == 0) --end;
    const size_t n = static_cast<size_t>(end - nal);
    if (n == 0 || n > 0xFFFF) return;
    const int type = nal[0] & 0x1F;
    if (type == 7 && sps->data == nullptr && n >= 4) *sps = {nal, n};
    if (type == 8 && pps->data == nullptr) *pps = {nal, n};
  };
  size_t i = 0;
  while (i + 3 <= size) {
    if (begin[i] == 0 && begin[i + 1] == 0 && begin[i + 2] == 1) {
      take(begin + i);
      i += 3;
      nal = begin + i;
    } else {
      ++i;
    }
  }
  take(begin + size);
  return sps->data != nullptr && pps->data != nullptr;
}

// AVCDecoderConfigurationRecord with four-byte NAL lengths, one SPS, one PPS.
std::vector<uint8_t> AvcConfigurationRecord(const NalUnit& sps, const NalUnit& pps) {
  std::vector<uint8_t> avcc = {1, sps.data[1], sps.data[2], sps.data[3], 0xFF, 0xE1,
                               static_cast<uint8_t>(sps.size >> 8),
                               static_cast<uint8_t>(sps.size & 0xFF)};
  avcc.insert(avcc.end(), sps.data, sps.data + sps.size);
  avcc.push_back(1);
  avcc.push_back(static_cast<uint8_t>(pps.size >> 8));
  avcc.push_back(static_cast<uint8_t>(pps.size & 0xFF));
  avcc.insert(avcc.end(), pps.data, pps.data + pps.size);
  return avcc;
}

// MPEG-4 sampling frequency index; rates outside the table take 44100's.
int SamplingFrequencyIndex(int sample_rate) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000,
                                   24000, 22050, 16000, 12000, 11025, 8000};
  for (int i = 0; i < static_cast<int>(sizeof kRates / sizeof kRates[0]); ++i) {
    if (kRates[i] == sample_rate) return i;
  }
  return 4;
}

// A member read leniently: missing, of another type or outside the range of
// int, it reads as 0 (or "").
int IntMember(const Json& line, const char* key) {
  const auto it = line.find(key);
  if (it == line.end()) return 0;
  if (it->is_number_unsigned()) {
    const uint64_t v = it->get<uint64_t>();
    return v <= INT_MAX ? static_cast<int>(v) : 0;
  }
  if (it->is_number_integer()) {
    const int64_t v = it->get<int64_t>();
    return v >= INT_MIN && v <= INT_MAX ? static_cast<int>(v) : 0;
  }
  return 0;
}

std::string StringMember(const Json& line, const char* key) {
  const auto it = line.find(key);
  if (it == line.end() || !it->is_string()) return {};
  return it->get_ref<const std::string&>();
}

// The decimal number behind "version=" ("%d" syntax), 0 when there is none.
int ReadVersion(const char* line) {
  const char* at = std::strstr(line, "version=");
  if (at == nullptr) return 0;
  const long v = std::strtol(at + std::strlen("version="), nullptr, 10);
  return static_cast<int>(std::clamp<long>(v, INT_MIN, INT_MAX));
}

}  // namespace

void MoovParser::FileClose::operator()(FILE* f) const noexcept { std::fclose(f); }

MoovParser::MoovParser() { line_[0] = '\0'; }

MoovParser::~MoovParser() = default;

void MoovParser::reset() {
  path_.clear();
  file_.reset();
  line_[0] = '\0';
  header_lines_ = 0;
  version_ = 0;
  has_video_ = false;
  has_audio_ = false;
  video_ = {};
  audio_ = {};
  streams_.clear();
  file_size_ = 0;
  consumed_ = 0;
  line_number_ = 0;
  forced_progress_ = -1.0;
}

bool MoovParser::parse(const char* index_path) {
  reset();
  FilePtr file(platform::open_file(index_path, "rt"));
  if (!file) {
    ZEVA_LOG(kLogError, "无法打开moov文件: %s", index_path != nullptr ? index_path : "(null)");
    return false;
  }
  ReadHead(file.get());
  if (std::fseek(file.get(), 0, SEEK_END) == 0) {
    file_size_ = std::max<int64_t>(std::ftell(file.get()), 0);
  }
  file.reset();

  if (streams_.empty()) {
    ZEVA_LOG(kLogError, "未找到有效的音视频流: %s", index_path);
    return false;
  }
  if (!PrepareVideoExtradata()) {
    ZEVA_LOG(kLogError, "未找到v_extradata");
    return false;
  }
  if (!PrepareAudioExtradata()) {
    ZEVA_LOG(kLogError, "未找到a_extradata");
    return false;
  }
  path_ = index_path;
  consumed_ = 0;
  return true;
}

void MoovParser::ReadHead(FILE* f) {
  for (bool first = true; std::fgets(line_, sizeof line_, f) != nullptr; first = false) {
    if (line_[0] == '#') {
      if (first) version_ = ReadVersion(line_);
    } else if (line_[0] != '{' || !ReadStreamLine(line_)) {
      // The first record line. next_line reads the file again from the top,
      // so it is not kept.
      return;
    }
    ++header_lines_;
  }
}

bool MoovParser::ReadStreamLine(const char* line) {
  const Json json = Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded() || !json.is_object()) return false;
  const std::string type = StringMember(json, "type");
  if (type == "video") {
    has_video_ = true;
    video_.index = IntMember(json, "index");
    video_.codec = StringMember(json, "codec");
    video_.format = StringMember(json, "format");
    video_.width = IntMember(json, "w");
    video_.height = IntMember(json, "h");
    video_.tb_num = IntMember(json, "tb.num");
    video_.tb_den = IntMember(json, "tb.den");
    video_.extradata_b64 = StringMember(json, "ev");
    streams_.push_back(StreamKind::kVideo);
  } else if (type == "audio") {
    has_audio_ = true;
    audio_.index = IntMember(json, "index");
    audio_.codec = StringMember(json, "codec");
    audio_.format = StringMember(json, "format");
    audio_.channels = IntMember(json, "channels");
    audio_.sample_rate = IntMember(json, "sample_rate");
    audio_.frame_size = IntMember(json, "frame_size");
    audio_.tb_num = IntMember(json, "tb.num");
    audio_.tb_den = IntMember(json, "tb.den");
    audio_.extradata_b64 = StringMember(json, "ev");
    streams_.push_back(StreamKind::kAudio);
  }
  // A stream line of another type still belongs to the head.
  return true;
}

bool MoovParser::PrepareVideoExtradata() {
  if (!has_video_) {
    ZEVA_LOG(kLogError, "---> 没有检测到视频流");
    return true;
  }
  if (video_.extradata_b64.empty()) {
    ZEVA_LOG(kLogError, "--> no global PPS/SPS, generate ...");
    video_.extradata_b64 = kDefaultSpsPps;
  }
  // The recording's extradata is an Annex B byte stream; the MP4 muxer
  // wants a configuration record.
  std::vector<uint8_t> stream;
  NalUnit sps;
  NalUnit pps;
  if (!DecodeBase64(video_.extradata_b64, &stream) || !FindParameterSets(stream, &sps, &pps)) {
    ZEVA_LOG(kLogError, "no sps/pps");
    return false;
  }
  const std::vector<uint8_t> avcc = AvcConfigurationRecord(sps, pps);
  ZEVA_LOG(kLogDebug, "===> v_ext_result: %s\n", Hex(avcc).text);
  video_.extradata_b64 = EncodeBase64(avcc);
  return !video_.extradata_b64.empty();
}

bool MoovParser::PrepareAudioExtradata() {
  if (!has_audio_) {
    ZEVA_LOG(kLogError, "---> 没有检测到音频流");
    return true;
  }
  if (!audio_.extradata_b64.empty()) return true;
  ZEVA_LOG(kLogError, "--> no global ADTS, generate ...");
  // AudioSpecificConfig of AAC LC: object type 2 (5 bits), frequency index
  // (4 bits), channel configuration (4 bits), three zero bits.
  const int frequency = SamplingFrequencyIndex(audio_.sample_rate);
  const int channels = audio_.channels & 0x0F;
  const std::vector<uint8_t> config = {static_cast<uint8_t>((2 << 3) | (frequency >> 1)),
                                       static_cast<uint8_t>(((frequency & 1) << 7) | (channels << 3))};
  ZEVA_LOG(kLogDebug, "===> a_ext_result: %s\n", Hex(config).text);
  audio_.extradata_b64 = EncodeBase64(config);
  return !audio_.extradata_b64.empty();
}

const char* MoovParser::next_line() {
  if (!file_) {
    if (path_.empty()) return nullptr;
    file_.reset(platform::open_file(path_.c_str(), "rb"));
    if (!file_) return nullptr;
    // The lines are cut exactly as in parse, so the same count skips the head.
    for (int i = 0; i < header_lines_; ++i) {
      if (std::fgets(line_, sizeof line_, file_.get()) == nullptr) break;
    }
    line_number_ = header_lines_;
  }
  const long offset = std::ftell(file_.get());
  if (std::fgets(line_, sizeof line_, file_.get()) == nullptr) {
    consumed_ = file_size_;
    return nullptr;
  }
  if (offset >= 0) consumed_ = offset;
  ++line_number_;
  return line_;
}

double MoovParser::progress() const {
  if (forced_progress_ >= 0) return forced_progress_;
  if (file_size_ < 1) return 0.0;
  // The file may have grown since parse took its size.
  return std::min(1.0, static_cast<double>(consumed_) / static_cast<double>(file_size_));
}

}  // namespace zeva
