// Controls of the library's process-wide log. Every diagnostic line of the
// library goes to one sink: standard error until the host redirects it. Lines
// look like "1113-17:49:29[I][bg] zv_av 57  : --- before stop".
//
// Levels: 0 unconditional, 1 fatal, 2 error, 3 warning, 4 information,
// 5 debug, 6 most verbose. The default threshold is 2.
//
// Call these before recording starts: they take no lock, and a sink or
// callback swapped while library threads log is a race.
#ifndef ZEVA_LOG_H
#define ZEVA_LOG_H

#include <cstdio>
#include <functional>

#include "zeva/export.h"

// Appends the log to the file at UTF-8 `path` (surrounding quotes, blanks and
// line ends are trimmed) and sets the threshold to `level`. A null path or one
// that cannot be opened sends the log to standard error instead, silently.
// The file stays open for the life of the process.
ZEVA_API void ZEVA_Log_On(const char* path, int level);

// Logs to the host's open `stream` (standard error when null) at threshold
// `level`. The library never closes the stream; it must outlive the logging.
ZEVA_API void ZEVA_Log_On2(FILE* stream, int level);

// Sends further lines to standard output. It does not silence the log: use
// ZEVA_Log_Level(-1) for that. Threshold and callback are left as they are.
ZEVA_API void ZEVA_Log_Off();

// Sets the threshold: messages of a level above it are dropped. Not clamped:
// a negative value drops everything, 6 or more lets everything through.
ZEVA_API void ZEVA_Log_Level(int level);

// Receives every message, whatever the threshold, instead of the sink:
// cb(tag, level 0..6, full source path, line, message without newline). The
// message buffer is valid only during the call. An empty function returns the
// log to its sink. `cb` may be called from any library thread at once.
ZEVA_API void ZEVA_Set_Log_Callback(
    std::function<void(const char*, int, const char*, int, const char*)> cb);

#endif  // ZEVA_LOG_H
