// Rebuilds a playable movie from a recording that ended without its trailer
// (the process was killed, the machine lost power) and the crash-safe index
// written beside it, through ZEVALib's repair interface.
//
//   repair BROKEN INDEX OUT
#include <cstdio>

#include <zeva/zeva.h>

namespace {

// Called on the repairing thread: code 0 while it works (progress 0..1), a
// negative code with a message when it fails.
void OnProgress(double progress, int code, const char* message, void* /*user*/) {
  if (code != 0) {
    std::fprintf(stderr, "repair failed (%d): %s\n", code, message);
  } else {
    std::printf("\rrepairing: %3.0f%%", progress * 100);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s BROKEN INDEX OUT\n", argv[0]);
    return 2;
  }
  // Returns when OUT is finished. ZEVA_StartRepair_Async does the same on a
  // thread of the library's and gives a handle with which a host can stop
  // it early, still leaving a playable OUT.
  const bool ok = ZEVA_StartRepair_sync(argv[1], argv[2], argv[3], OnProgress, nullptr);
  std::printf("\n%s\n", ok ? "repaired" : "not repaired");
  return ok ? 0 : 1;
}
