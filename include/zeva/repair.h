// Rebuilding a playable movie from a recording that ended without its
// trailer (a crash, a kill, a power cut): the broken MP4 and the crash-safe
// index written beside it (MovieInfo.moov_url) give a new, finished file.
#ifndef ZEVA_REPAIR_H
#define ZEVA_REPAIR_H

#include "zeva/export.h"

// Progress of a repair, on the repair's thread: (progress 0..1, code,
// message, user). Code 0 with "" every ten index lines and once at the end
// (progress 1.0 when nearly everything was rebuilt). Failures: -1 the broken
// file cannot be opened, -2 the index cannot be parsed, -5 the repair was
// stopped before it began, -10 the output could not be written (FFmpeg's
// text). Do not call ZEVA_StopRepair from inside it.
typedef void (*ZEVA_RepairProgress)(double progress, int code, const char* message, void* user);

// Starts rebuilding `output` (container chosen by its name) from `broken`
// and `index` on a thread of the library's. Returns the handle, to be given
// to ZEVA_StopRepair once the repair is over or to cancel it; null only when
// out of memory. `progress` may be null.
ZEVA_API void* ZEVA_StartRepair_Async(const char* broken, const char* index, const char* output,
                                      ZEVA_RepairProgress progress, void* user);

// The same on the calling thread; true when the output was written.
ZEVA_API bool ZEVA_StartRepair_sync(const char* broken, const char* index, const char* output,
                                    ZEVA_RepairProgress progress, void* user);

// Stops a repair (it ends after the index line it is on, and its output is
// still finished and playable), waits for it, frees the handle and sets
// `*handle` to null. Null pointers are ignored.
ZEVA_API void ZEVA_StopRepair(void** handle);

// Whether the repair behind `handle` is still working; false for null.
ZEVA_API bool ZEVA_Repair_IsRunning(void* handle);

#endif  // ZEVA_REPAIR_H
