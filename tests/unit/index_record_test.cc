#include "index/index_record.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using zeva::IndexRecord;

// Records and packets as "{stream,position,size,pts,dts,duration,key}", so
// that tables compare and print them whole.
std::string Text(const IndexRecord& r) {
  return "{" + std::to_string(r.stream) + "," + std::to_string(r.position) + "," + std::to_string(r.size) +
         "," + std::to_string(r.pts_delta) + "," + std::to_string(r.dts_delta) + "," +
         std::to_string(r.duration) + "," + std::to_string(r.key) + "}";
}
std::string Text(const zeva::IndexPacket& p) {
  return Text(IndexRecord{p.stream, p.position, p.size, p.pts, p.dts, p.duration, p.key});
}

std::vector<IndexRecord> ReadLine(const char* line, int version) {
  std::vector<IndexRecord> records;
  IndexRecord r;
  for (const char* p = line; (p = zeva::ReadIndexRecord(p, version, &r)) != nullptr;) records.push_back(r);
  return records;
}
std::vector<std::string> ReadText(const std::string& line, int version) {
  std::vector<std::string> out;
  for (const IndexRecord& r : ReadLine(line.c_str(), version)) out.push_back(Text(r));
  return out;
}

// Writer: the text of one record after earlier text, and that reading it
// back and writing it again gives the same text.
struct WriteCase {
  const char* name;
  IndexRecord record;
  bool empty_duration;
  const char* text;
};

class RecordText : public testing::TestWithParam<WriteCase> {};

TEST_P(RecordText, IsWrittenAndReadBack) {
  const WriteCase& c = GetParam();
  char line[256] = "x;";
  size_t length = 2;
  ASSERT_TRUE(zeva::AppendIndexRecord(line, sizeof line, &length, c.record, c.empty_duration));
  EXPECT_EQ(std::string(line), std::string("x;") + c.text);
  EXPECT_EQ(length, std::strlen(line));
  const std::vector<IndexRecord> read = ReadLine(line + 2, zeva::kIndexVersion);
  ASSERT_EQ(read.size(), 1u);
  char again[256] = "";
  size_t again_length = 0;
  ASSERT_TRUE(zeva::AppendIndexRecord(again, sizeof again, &again_length, read[0], false));
  EXPECT_STREQ(again, c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Index, RecordText,
    testing::Values(
        WriteCase{"FirstRecordCarriesPosition", {0, 48, 5123, 0, -1024, 512, 1}, false, ",48,5123,,-1024,512,1;"},
        WriteCase{"LaterVideoRecordEmptyDts", {0, 0, 812, 512, 512, 512, 0}, false, ",,812,512,,512,;"},
        WriteCase{"AudioBeforeAudioEmptyDuration", {1, 0, 371, 1024, 1024, 1024, 1}, true, "1,,371,1024,,,1;"},
        WriteCase{"NegativeDeltasKeepSign", {0, 0, 90, -1024, 512, 512, 0}, false, ",,90,-1024,512,512,;"},
        WriteCase{"ZeroDtsWithNonZeroPts", {0, 0, 90, 1024, 0, 0, 0}, false, ",,90,1024,,,;"},
        WriteCase{"Extremes",
                  {INT_MIN, INT64_MIN, INT_MAX, INT64_MAX, INT64_MIN, -1, 1},
                  false,
                  "-2147483648,-9223372036854775808,2147483647,9223372036854775807,-9223372036854775808,-1,1;"}),
    [](const testing::TestParamInfo<WriteCase>& info) { return info.param.name; });

struct ReadCase {
  const char* name;
  int version;
  std::string line;
  std::vector<std::string> records;
};

class RecordLine : public testing::TestWithParam<ReadCase> {};

TEST_P(RecordLine, Reads) {
  const ReadCase& c = GetParam();
  EXPECT_EQ(ReadText(c.line, c.version), c.records) << testing::PrintToString(c.line);
}

const char kVideo[] = "{0,0,812,512,0,512,0}";
const char kAudio[] = "{1,0,371,1024,0,0,1}";

INSTANTIATE_TEST_SUITE_P(
    Index, RecordLine,
    testing::Values(
        ReadCase{"SparseCarriageReturn", 2, ",,812,512,,512,;1,,371,1024,,,1;\r\n", {kVideo, kAudio}},
        ReadCase{"SparseLastLineOfFile", 2, ",,812,512,,512,;1,,371,1024,,,1;", {kVideo, kAudio}},
        ReadCase{"SparseCutInsideRecord", 2, ",,812,512,,512,;1,,37", {kVideo}},
        ReadCase{"SparseMissingSemicolon", 2, ",,812,512,,512,0\n", {}},
        ReadCase{"SparseBlanksSignsAndJunk", 2, " 1,+48, 9x,-5,\t7,,1junk;", {"{1,48,9,-5,7,0,1}"}},
        ReadCase{"SparseHugeNumbersClamp", 2,
                 "99999999999,99999999999999999999999,-99999999999,-9223372036854775808,-9223372036854775809,,1;",
                 {"{2147483647,9223372036854775807,-2147483648,-9223372036854775808,-9223372036854775808,0,1}"}},
        ReadCase{"SparseBinaryBytes", 2, "\x01\xff,\x80,3,,,,1;\x7f", {"{0,0,3,0,0,0,1}"}},
        ReadCase{"FullRecords", 1, "0,48,5123,0,-1024,512,1;1,0,371,1024,1024,1024,1;\r\n",
                 {"{0,48,5123,0,-1024,512,1}", "{1,0,371,1024,1024,1024,1}"}},
        ReadCase{"FullRejectsEmptyField", 1, ",,812,512,,512,;", {}},
        ReadCase{"FullCutInsideRecord", 1, "0,48,5123,0,0,512,1;1,0,37", {"{0,48,5123,0,0,512,1}"}},
        ReadCase{"UnknownVersion", 3, ",,812,512,,512,;", {}}),
    [](const testing::TestParamInfo<ReadCase>& info) { return info.param.name; });

struct DecodeCase {
  const char* name;
  std::string line;
  std::vector<std::string> packets;
};

class RecordDecoding : public testing::TestWithParam<DecodeCase> {};

TEST_P(RecordDecoding, GivesPackets) {
  const DecodeCase& c = GetParam();
  zeva::IndexRecordDecoder decoder(1, 1024);
  std::vector<std::string> packets;
  for (const IndexRecord& r : ReadLine(c.line.c_str(), 2)) packets.push_back(Text(decoder.Decode(r)));
  EXPECT_EQ(packets, c.packets);
}

INSTANTIATE_TEST_SUITE_P(
    Index, RecordDecoding,
    testing::Values(
        // The first record of each class holds absolute values; positions
        // follow on from the first one; an empty duration is the frame size
        // on the audio stream only.
        DecodeCase{"ClassesKeepTheirOwnTimes",
                   ",48,100,,,,1;1,,20,-1024,,,1;,,30,512,,512,;1,,21,1024,,,1;",
                   {"{0,48,100,0,0,0,1}", "{1,148,20,-1024,-1024,1024,1}", "{0,168,30,512,512,512,0}",
                    "{1,198,21,0,0,1024,1}"}},
        // Reordered video: a dts field follows its own chain, an empty one
        // takes the pts (which then becomes the dts the next delta adds to).
        DecodeCase{"ReorderedVideo",
                   ",48,100,,-1024,512,1;,,10,1536,512,512,;,,11,-1024,512,512,;,,12,512,,512,;,,13,2048,512,512,;",
                   {"{0,48,100,0,-1024,512,1}", "{0,148,10,1536,-512,512,0}", "{0,158,11,512,0,512,0}",
                    "{0,169,12,1024,1024,512,0}", "{0,181,13,3072,1536,512,0}"}},
        // A position other than in the first record moves the packet there.
        DecodeCase{"LaterPositionRestarts",
                   ",48,100,,,,1;,1000,50,,,,;,,5,,,,;",
                   {"{0,48,100,0,0,0,1}", "{0,1000,50,0,0,0,0}", "{0,1050,5,0,0,0,0}"}},
        // Garbage values wrap around instead of overflowing.
        DecodeCase{"ExtremeDeltasWrap",
                   ",9223372036854775807,1,9223372036854775807,,,;,,1,1,,,;",
                   {"{0,9223372036854775807,1,9223372036854775807,9223372036854775807,0,0}",
                    "{0,-9223372036854775808,1,-9223372036854775808,-9223372036854775808,0,0}"}}),
    [](const testing::TestParamInfo<DecodeCase>& info) { return info.param.name; });

}  // namespace
