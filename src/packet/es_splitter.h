// Splits elementary streams as hosts hand them over: H.264 Annex B into
// access units, ADTS AAC into frames. Pure functions over a buffer, no
// FFmpeg, so that the command-line tool can compile them in as well.
#ifndef ZEVA_PACKET_ES_SPLITTER_H
#define ZEVA_PACKET_ES_SPLITTER_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zeva {

// A part of the buffer given to a splitter.
struct EsSpan {
  size_t offset;
  size_t size;
};

// The access units of an Annex B buffer, each with its leading start code.
// A unit begins at an access unit delimiter, and after a picture's slices at
// an SPS, PPS, SEI or prefix NAL, or at a slice whose first_mb_in_slice is 0.
// Bytes before the first start code are skipped.
std::vector<EsSpan> SplitAnnexB(const uint8_t* data, size_t size);

// The frames of an ADTS buffer, by each header's frame length. Stops at the
// first position that holds no valid header or a truncated frame.
std::vector<EsSpan> SplitAdts(const uint8_t* data, size_t size);

}  // namespace zeva

#endif  // ZEVA_PACKET_ES_SPLITTER_H
