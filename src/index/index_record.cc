#include "index/index_record.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace zeva {
namespace {

// Two's-complement arithmetic without signed overflow: timestamps may be
// missing (INT64_MIN) and index files may hold anything.
int64_t WrapAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// Writes `v` in decimal at `out` and returns the end. `out` has room for 20
// characters, the longest 64-bit value.
char* PutDecimal(char* out, int64_t v) {
  uint64_t m = v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  char digits[20];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + m % 10);
    m /= 10;
  } while (m != 0);
  if (v < 0) *out++ = '-';
  while (n > 0) *out++ = digits[--n];
  return out;
}

// One field: the value unless it is 0, then the separator.
char* PutField(char* out, int64_t v, char separator) {
  if (v != 0) out = PutDecimal(out, v);
  *out++ = separator;
  return out;
}

bool IsLineEnd(char c) { return c == '\0' || c == '\r' || c == '\n'; }

// Reads a decimal number the way "%lld" does: blanks, an optional sign, then
// digits. Values past the 64-bit range saturate. Returns false, leaving `*p`
// where it was, when no digit follows.
bool ParseDecimal(const char** p, int64_t* value) {
  const char* s = *p;
  while (*s == ' ' || *s == '\t') ++s;
  const bool negative = *s == '-';
  if (*s == '-' || *s == '+') ++s;
  if (*s < '0' || *s > '9') return false;
  // The magnitude is capped one past INT64_MAX so that INT64_MIN still reads.
  constexpr uint64_t kCap = static_cast<uint64_t>(INT64_MAX) + 1;
  uint64_t m = 0;
  for (; *s >= '0' && *s <= '9'; ++s) {
    const uint64_t digit = static_cast<uint64_t>(*s - '0');
    m = m > kCap / 10 ? kCap : std::min(m * 10 + digit, kCap);
  }
  if (negative) {
    *value = m == kCap ? INT64_MIN : -static_cast<int64_t>(m);
  } else {
    *value = m >= kCap ? INT64_MAX : static_cast<int64_t>(m);
  }
  *p = s;
  return true;
}

int ClampToInt(int64_t v) {
  if (v < INT_MIN) return INT_MIN;
  if (v > INT_MAX) return INT_MAX;
  return static_cast<int>(v);
}

constexpr int kFields = 7;

void Store(IndexRecord* out, const int64_t (&v)[kFields]) {
  out->stream = ClampToInt(v[0]);
  out->position = v[1];
  out->size = ClampToInt(v[2]);
  out->pts_delta = v[3];
  out->dts_delta = v[4];
  out->duration = v[5];
  out->key = ClampToInt(v[6]);
}

char SeparatorAfter(int field) { return field == kFields - 1 ? ';' : ','; }

// Version 1: every field is a number followed directly by its separator.
const char* ReadFullRecord(const char* p, IndexRecord* out) {
  int64_t v[kFields];
  for (int i = 0; i < kFields; ++i) {
    if (!ParseDecimal(&p, &v[i]) || *p != SeparatorAfter(i)) return nullptr;
    ++p;
  }
  Store(out, v);
  return p;
}

// Version 2: a field is empty (0) or a number; whatever follows the number up
// to the separator is skipped.
const char* ReadSparseRecord(const char* p, IndexRecord* out) {
  int64_t v[kFields];
  for (int i = 0; i < kFields; ++i) {
    const char separator = SeparatorAfter(i);
    if (IsLineEnd(*p)) return nullptr;
    v[i] = 0;
    if (*p != separator) {
      ParseDecimal(&p, &v[i]);  // without digits the field stays 0
      while (*p != separator) {
        if (IsLineEnd(*p)) return nullptr;
        ++p;
      }
    }
    ++p;
  }
  Store(out, v);
  return p;
}

}  // namespace

bool AppendIndexRecord(char* line, size_t capacity, size_t* length, const IndexRecord& record,
                       bool empty_duration) {
  // Formatted aside first so that a record that does not fit leaves the line
  // untouched instead of cut.
  char text[kIndexRecordMaxText];
  char* w = text;
  w = PutField(w, record.stream, ',');
  w = PutField(w, record.position, ',');
  w = PutField(w, record.size, ',');
  w = PutField(w, record.pts_delta, ',');
  w = PutField(w, record.dts_delta == record.pts_delta ? 0 : record.dts_delta, ',');
  w = PutField(w, empty_duration ? 0 : record.duration, ',');
  w = PutField(w, record.key, ';');
  const size_t n = static_cast<size_t>(w - text);
  if (line == nullptr || length == nullptr || *length >= capacity || capacity - *length <= n) {
    return false;
  }
  std::memcpy(line + *length, text, n);
  *length += n;
  line[*length] = '\0';
  return true;
}

const char* ReadIndexRecord(const char* p, int version, IndexRecord* out) {
  if (p == nullptr || out == nullptr) return nullptr;
  switch (version) {
    case 1:
      return ReadFullRecord(p, out);
    case 2:
      return ReadSparseRecord(p, out);
    default:
      return nullptr;
  }
}

IndexPacket IndexRecordDecoder::Decode(const IndexRecord& record) {
  const bool audio = audio_stream_ >= 0 && record.stream == audio_stream_;
  ClassTimes& last = audio ? audio_ : video_;
  IndexPacket packet;
  packet.stream = record.stream;
  packet.size = record.size;
  packet.pts = WrapAdd(last.pts, record.pts_delta);
  packet.dts = record.dts_delta != 0 ? WrapAdd(last.dts, record.dts_delta) : packet.pts;
  last.pts = packet.pts;
  last.dts = packet.dts;
  packet.duration = record.duration == 0 && audio ? audio_frame_size_ : record.duration;
  packet.key = record.key != 0;
  packet.position = record.position != 0 ? record.position : next_position_;
  next_position_ = WrapAdd(packet.position, record.size);
  return packet;
}

}  // namespace zeva
