// The host's controls of the process-wide logger.
#include <cstring>
#include <string>

#include "log/logger.h"
#include "platform/file.h"
#include "zeva/log.h"

namespace {

// Characters a host may leave around a path it read from a settings file or
// a command line.
bool is_trimmed(char c) {
  return c == '"' || c == '\b' || c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

// Opens the log file for appending (created if missing), or returns null.
FILE* open_log_file(const char* path) {
  if (path == nullptr) return nullptr;
  std::string p(path);
  // Strip the tail, never the very first character, then the head.
  while (p.size() > 1 && is_trimmed(p.back())) p.pop_back();
  size_t start = 0;
  while (start < p.size() && is_trimmed(p[start])) ++start;
  return zeva::platform::open_file(p.c_str() + start, "a+");
}

qel::Logger* logger() { return qel::Logger::instance(nullptr); }

}  // namespace

void ZEVA_Log_On(const char* path, int level) {
  if (qel::Logger* lg = logger()) lg->set_sink(open_log_file(path));
  ZEVA_Log_Level(level);
}

void ZEVA_Log_On2(FILE* stream, int level) {
  if (qel::Logger* lg = logger()) lg->set_sink(stream);
  ZEVA_Log_Level(level);
}

void ZEVA_Log_Off() {
  if (qel::Logger* lg = logger()) lg->set_sink(stdout ? stdout : stderr);
}

void ZEVA_Log_Level(int level) {
  if (qel::Logger* lg = logger()) lg->set_level(level);
}

void ZEVA_Set_Log_Callback(
    std::function<void(const char*, int, const char*, int, const char*)> cb) {
  if (qel::Logger* lg = logger()) lg->set_callback(std::move(cb));
}
