// The boundary of the exported functions: nothing may throw across it.
#ifndef ZEVA_LOG_API_GUARD_H
#define ZEVA_LOG_API_GUARD_H

#include <exception>

#include "log/logger.h"

namespace zeva {

// Runs `fn` on the object behind the opaque handle `h`, or gives `neutral`
// for a null handle or when anything escapes, which is logged under `what`.
template <typename Obj, typename T, typename Fn>
T GuardHandle(void* h, T neutral, const char* what, Fn fn) {
  if (h == nullptr) return neutral;
  try {
    return fn(static_cast<Obj*>(h));
  } catch (const std::exception& e) {
    ZEVA_LOG(kLogError, "%s: %s", what, e.what());
  } catch (...) {
    ZEVA_LOG(kLogError, "%s: unknown error", what);
  }
  return neutral;
}

}  // namespace zeva

#endif  // ZEVA_LOG_API_GUARD_H
