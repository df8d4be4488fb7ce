// The exported log controls against real files and the process's standard
// streams.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <filesystem>
#include <string>

#include "log/logger.h"
#include "support/files.h"
#include "zeva/log.h"

namespace fs = std::filesystem;

namespace {

using zeva::test::ReadFile;

class LogControls : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("zeva-log-" + std::to_string(getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override {
    ZEVA_Log_On2(nullptr, 2);
    fs::remove_all(dir_);
  }
  fs::path dir_;
};

TEST_F(LogControls, LogOnTrimsThePathAndAppends) {
  const fs::path file = dir_ / "rec.log";
  std::ofstream(file) << "earlier\n";
  const std::string decorated = "  \"" + file.string() + "\"\r\n";
  ZEVA_Log_On(decorated.c_str(), 5);
  ZEVA_LOG(5, "into the file %d", 1);
  ZEVA_LOG(6, "above the threshold");
  const std::string text = ReadFile(file);
  EXPECT_EQ(text.rfind("earlier\n", 0), 0u);
  EXPECT_NE(text.find("[D][bg] log_file_test.cc "), std::string::npos);
  EXPECT_NE(text.find(": into the file 1\n"), std::string::npos);
  EXPECT_EQ(text.find("above the threshold"), std::string::npos);
}

TEST_F(LogControls, UnopenablePathAndNullFallBackToStandardError) {
  const fs::path captured = dir_ / "stderr.txt";
  {
    zeva::test::StreamCapture r(stderr, captured);
    ZEVA_Log_On((dir_ / "missing-dir" / "x.log").c_str(), 3);
    ZEVA_LOG(3, "fallback");
    ZEVA_Log_On(nullptr, 3);
    ZEVA_LOG(3, "null path");
    ZEVA_LOG(4, "filtered");
  }
  const std::string text = ReadFile(captured);
  EXPECT_NE(text.find("[W][bg] log_file_test.cc"), std::string::npos);
  EXPECT_NE(text.find(": fallback\n"), std::string::npos);
  EXPECT_NE(text.find(": null path\n"), std::string::npos);
  EXPECT_EQ(text.find("filtered"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir_ / "missing-dir"));
}

TEST_F(LogControls, LogOffMovesLinesToStandardOutputAndKeepsTheFileOpen) {
  const fs::path file = dir_ / "kept.log";
  ZEVA_Log_On(file.c_str(), 2);
  FILE* opened = qel::Logger::instance(nullptr)->sink();
  const fs::path captured = dir_ / "stdout.txt";
  {
    zeva::test::StreamCapture r(stdout, captured);
    ZEVA_Log_Off();
    ZEVA_LOG(2, "to stdout");
  }
  EXPECT_NE(ReadFile(captured).find(": to stdout\n"), std::string::npos);
  EXPECT_EQ(ReadFile(file), "");
  // The earlier sink is still a valid, open stream.
  EXPECT_GE(std::fprintf(opened, "still open\n"), 0);
  EXPECT_EQ(std::fflush(opened), 0);
  EXPECT_EQ(ReadFile(file), "still open\n");
}

}  // namespace
