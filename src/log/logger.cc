#include "log/logger.h"

#include <algorithm>
#include <cstdarg>
#include <ctime>
#include <mutex>
#include <new>

#include "platform/clock.h"

namespace qel {
namespace {

std::atomic<Logger*> g_instance{nullptr};
std::once_flag g_create_once;

// Space for the header: time stamp, mark, tag, base name and line.
constexpr int kHeaderMax = 128;

const char* base_name(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

int clamp_level(int level) { return std::clamp(level, 0, 6); }

}  // namespace

Logger::Logger() : sink_(stderr), level_(2) {}

Logger::~Logger() { sink_.store(stderr); }

Logger* Logger::instance(Logger* replacement) {
  if (replacement != nullptr) {
    g_instance.store(replacement);
    return replacement;
  }
  if (Logger* current = g_instance.load()) return current;
  std::call_once(g_create_once, [] {
    Logger* created = new (std::nothrow) Logger();
    Logger* expected = nullptr;
    // A replacement installed meanwhile wins; the default one is then unused.
    if (!g_instance.compare_exchange_strong(expected, created)) delete created;
  });
  return g_instance.load();
}

void Logger::set_callback(Callback cb) { std::swap(callback_, cb); }

int Logger::log(Logger* lg, const char* tag, int level, const char* file, int line,
                const char* fmt, ...) {
  if (lg == nullptr) return 6;
  level = clamp_level(level);
  const bool has_callback = static_cast<bool>(lg->callback_);
  if (!has_callback && level > lg->level()) return 6;

  va_list ap;
  va_start(ap, fmt);
  if (has_callback) {
    char message[kMaxLine];
    std::vsnprintf(message, sizeof message, fmt, ap);
    lg->callback_(tag ? tag : "", level, file ? file : "", line, message);
  } else {
    lg->write_line(level, tag, file, line, fmt, ap);
  }
  va_end(ap);
  return 0;
}

void Logger::write_line(int level, const char* tag, const char* file, int line,
                        const char* fmt, va_list ap) {
  char stamp[64] = "";
  std::tm tm{};
  if (zeva::platform::local_time(zeva::platform::calendar_seconds(), &tm)) {
    std::strftime(stamp, sizeof stamp, "%m%d-%H:%M:%S", &tm);
  }

  char buf[kMaxLine + 1];
  int header = std::snprintf(buf, kHeaderMax, "%s[%c][%s] %s %-4d: ", stamp, kMarks[level],
                             tag ? tag : "", base_name(file ? file : ""), line);
  // A header cut at kHeaderMax holds kHeaderMax - 1 characters.
  header = std::clamp(header, 0, kHeaderMax - 1);
  int message = std::vsnprintf(buf + header, kMaxLine - 1 - header, fmt, ap);
  if (message < 0) message = 0;
  // An overflowing message leaves its terminating zero at index kMaxLine - 2;
  // the newline lands behind it, so the zero byte is part of the line.
  const int total = std::min(header + message, kMaxLine - 1);
  buf[total] = '\n';
  buf[total + 1] = '\0';
  FILE* out = sink();
  std::fwrite(buf, 1, static_cast<size_t>(total) + 1, out);
  std::fflush(out);
}

void err_print(FILE* stream, const char* fmt, ...) {
  if (stream == nullptr) return;
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stream, fmt, ap);
  va_end(ap);
}

}  // namespace qel
