#include "packet/es_splitter.h"

namespace zeva {
namespace {

// Position of the next 00 00 01 at or after `from`, or `size`.
size_t FindStartCode(const uint8_t* d, size_t size, size_t from) {
  for (size_t i = from; i + 3 <= size; ++i) {
    if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1) return i;
  }
  return size;
}

bool IsVcl(int type) { return type == 1 || type == 5; }

// NAL types that open a new access unit when they follow a picture's slices.
bool StartsUnitAfterVcl(int type) {
  return type == 9 || type == 7 || type == 8 || type == 6 || (type >= 14 && type <= 18);
}

}  // namespace

std::vector<EsSpan> SplitAnnexB(const uint8_t* d, size_t size) {
  std::vector<EsSpan> units;
  size_t unit_start = size;  // none open yet
  bool unit_has_vcl = false;
  size_t sc = FindStartCode(d, size, 0);
  while (sc < size) {
    // A zero byte before 00 00 01 belongs to this NAL's 4-byte start code.
    const size_t nal_start = (sc > 0 && d[sc - 1] == 0) ? sc - 1 : sc;
    const size_t header = sc + 3;
    const size_t next = FindStartCode(d, size, header);
    if (header < size) {
      const int type = d[header] & 0x1f;
      // first_mb_in_slice is ue(v): 0 is the single bit 1.
      const bool first_slice = IsVcl(type) && header + 1 < size && (d[header + 1] & 0x80) != 0;
      const bool opens = unit_start == size || type == 9 ||
                         (unit_has_vcl && (StartsUnitAfterVcl(type) || first_slice));
      if (opens) {
        if (unit_start != size) units.push_back({unit_start, nal_start - unit_start});
        unit_start = nal_start;
        unit_has_vcl = false;
      }
      unit_has_vcl = unit_has_vcl || IsVcl(type);
    }
    sc = next;
  }
  if (unit_start != size) units.push_back({unit_start, size - unit_start});
  return units;
}

std::vector<EsSpan> SplitAdts(const uint8_t* d, size_t size) {
  std::vector<EsSpan> frames;
  size_t pos = 0;
  while (pos + 7 <= size) {
    if (d[pos] != 0xff || (d[pos + 1] & 0xf6) != 0xf0) break;
    const size_t length = (static_cast<size_t>(d[pos + 3] & 0x03) << 11) |
                          (static_cast<size_t>(d[pos + 4]) << 3) | (d[pos + 5] >> 5);
    if (length < 7 || pos + length > size) break;
    frames.push_back({pos, length});
    pos += length;
  }
  return frames;
}

}  // namespace zeva
