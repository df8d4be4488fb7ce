// The exported repair interface: a handle is a RepairEngine. Nothing may
// throw across these functions.
#include <new>
#include <string>

#include "log/logger.h"
#include "repair/repair_engine.h"
#include "zeva/repair.h"

namespace {

const char* OrEmpty(const char* s) { return s != nullptr ? s : ""; }

}  // namespace

void* ZEVA_StartRepair_Async(const char* broken, const char* index, const char* output,
                             ZEVA_RepairProgress progress, void* user) {
  try {
    auto* engine = new zeva::RepairEngine(progress, user);
    ZEVA_LOG(zeva::kLogDebug, "broken=%s, moov=%s, output=%s", OrEmpty(broken), OrEmpty(index),
             OrEmpty(output));
    engine->StartAsync(OrEmpty(broken), OrEmpty(index), OrEmpty(output));
    return engine;
  } catch (const std::exception& e) {
    ZEVA_LOG(zeva::kLogError, "ZEVA_StartRepair_Async: %s", e.what());
    return nullptr;
  }
}

bool ZEVA_StartRepair_sync(const char* broken, const char* index, const char* output,
                           ZEVA_RepairProgress progress, void* user) {
  try {
    zeva::RepairEngine engine(progress, user);
    ZEVA_LOG(zeva::kLogDebug, "broken=%s, moov=%s, output=%s", OrEmpty(broken), OrEmpty(index),
             OrEmpty(output));
    return engine.Run(OrEmpty(broken), OrEmpty(index), OrEmpty(output));
  } catch (const std::exception& e) {
    ZEVA_LOG(zeva::kLogError, "ZEVA_StartRepair_sync: %s", e.what());
    return false;
  }
}

void ZEVA_StopRepair(void** handle) {
  if (handle == nullptr || *handle == nullptr) return;
  auto* engine = static_cast<zeva::RepairEngine*>(*handle);
  *handle = nullptr;
  delete engine;  // stops and joins the worker first
}

bool ZEVA_Repair_IsRunning(void* handle) {
  return handle != nullptr && static_cast<zeva::RepairEngine*>(handle)->running();
}
