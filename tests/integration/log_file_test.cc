// The exported log controls against real files and the process's standard
// streams.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "log/logger.h"
#include "support/files.h"
#include "zeva/log.h"

namespace fs = std::filesystem;
using zeva::test::ReadFile;

namespace {

// A path given with blanks, quotes and a line end is trimmed and appended to;
// an unopenable one falls back to standard error; after Log_Off lines go to
// standard output and the earlier file stays open.
TEST(LogControls, FileFallbackAndOff) {
  const fs::path dir = fs::temp_directory_path() / ("zeva-log-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const fs::path file = dir / "rec.log";
  std::ofstream(file) << "earlier\n";
  ZEVA_Log_On(("  \"" + file.string() + "\"\r\n").c_str(), 5);
  ZEVA_LOG(5, "into the file %d", 1);
  ZEVA_LOG(6, "above the threshold");
  FILE* opened = qel::Logger::instance(nullptr)->sink();
  {
    zeva::test::StreamCapture out(stdout, dir / "stdout.txt");
    ZEVA_Log_Off();
    ZEVA_LOG(2, "to stdout");
  }
  EXPECT_GE(std::fprintf(opened, "still open\n"), 0);
  EXPECT_EQ(std::fflush(opened), 0);
  {
    zeva::test::StreamCapture err(stderr, dir / "stderr.txt");
    ZEVA_Log_On((dir / "missing-dir" / "x.log").c_str(), 3);
    ZEVA_LOG(3, "fallback");
  }
  ZEVA_Log_On2(nullptr, 2);
  const std::string text = ReadFile(file);
  EXPECT_EQ(text.rfind("earlier\n", 0), 0u);
  EXPECT_NE(text.find("[D][bg] log_file_test.cc "), std::string::npos);
  EXPECT_NE(text.find(": into the file 1\n"), std::string::npos);
  EXPECT_EQ(text.find("above the threshold"), std::string::npos);
  EXPECT_NE(ReadFile(dir / "stderr.txt").find("[W][bg] log_file_test.cc"), std::string::npos);
  EXPECT_NE(ReadFile(dir / "stdout.txt").find(": to stdout\n"), std::string::npos);
  fs::remove_all(dir);
}

}  // namespace
