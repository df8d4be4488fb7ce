// The library's process-wide logger and the macro every call site uses.
#ifndef ZEVA_LOG_LOGGER_H
#define ZEVA_LOG_LOGGER_H

#include <atomic>
#include <cstdio>
#include <functional>

#define ZEVA_PRINTF_LIKE(fmt_index, first_arg) \
  __attribute__((format(printf, fmt_index, first_arg)))

namespace qel {

// One logger serves the whole process. It writes whole lines to its sink
// (standard error at first), dropping messages above its threshold, or hands
// every message to a callback when one is installed. Logging takes no lock
// and allocates nothing; the setters are meant for the host's set-up, before
// library threads log.
class Logger {
 public:
  using Callback =
      std::function<void(const char* tag, int level, const char* file, int line, const char* message)>;

  // Mark letters by clamped level.
  static constexpr char kMarks[] = "-FEWID=";
  // Longest line written to the sink, newline included.
  static constexpr int kMaxLine = 1023;

  Logger();
  virtual ~Logger();  // puts the sink back to standard error; never closes it
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  // With a non-null `replacement`: makes it the process-wide logger (the
  // previous one is neither destroyed nor closed) and returns it. With null:
  // returns the current logger, creating the default one (standard error,
  // threshold 2) on first use, once. Null only if that creation ran out of memory.
  static Logger* instance(Logger* replacement);

  // Logs one message. `level` is clamped into 0..6. Without a callback a
  // message above the threshold is dropped (result 6) before any formatting;
  // otherwise the line is "MMDD-HH:MM:SS[L][tag] base line: message\n", at
  // most kMaxLine bytes (a longer one is cut, its zero byte before the
  // newline), written with one fwrite and flushed. With a callback installed
  // every message goes to it instead, unformatted by header, with the full
  // `file`. Safe from any thread; a null `lg` drops the message.
  static int log(Logger* lg, const char* tag, int level, const char* file, int line,
                 const char* fmt, ...) ZEVA_PRINTF_LIKE(6, 7);

  FILE* sink() const { return sink_.load(std::memory_order_relaxed); }
  // Null means standard error. The previous sink stays open.
  void set_sink(FILE* f) { sink_.store(f ? f : stderr, std::memory_order_relaxed); }
  int level() const { return level_.load(std::memory_order_relaxed); }
  void set_level(int level) { level_.store(level, std::memory_order_relaxed); }
  // Swaps `cb` in; the previous callback is destroyed. Empty: back to the sink.
  void set_callback(Callback cb);

 private:
  void write_line(int level, const char* tag, const char* file, int line, const char* fmt,
                  va_list ap) ZEVA_PRINTF_LIKE(6, 0);

  std::atomic<FILE*> sink_;
  std::atomic<int> level_;
  Callback callback_;
};

// Prints straight to `stream`, bypassing the logger: no header, no filter.
// Callers end their formats with "\n" and flush standard error afterwards.
void err_print(FILE* stream, const char* fmt, ...) ZEVA_PRINTF_LIKE(2, 3);

}  // namespace qel

// The log call of the library's own code: tag "bg", this file and line.
#define ZEVA_LOG(level, ...) \
  ::qel::Logger::log(::qel::Logger::instance(nullptr), "bg", (level), __FILE__, __LINE__, __VA_ARGS__)

// The library's levels.
namespace zeva {
enum LogLevel : int { kLogError = 2, kLogInfo = 4, kLogDebug = 5 };
}  // namespace zeva

#endif  // ZEVA_LOG_LOGGER_H
