#include "packet/zv_mem_node.h"

#include <cstdio>
#include <cstdlib>

#include "log/logger.h"

namespace qel {

void release_node(ZVMemNode* node) {
  if (node == nullptr) return;
  iMemNodePool* pool = node->pool;
  if (pool == nullptr) {
    err_print(stderr, "[ERROR] *** ZVMemNode's pool is NULL, exit\n");
    std::fflush(stderr);
    std::free(node);
    return;
  }
  pool->lock();
  if (node->refs < 1) {
    node->refs = 0;
  } else if (node->refs > 1) {
    --node->refs;
  } else {
    pool->recycle(node);
  }
  pool->unlock();
}

}  // namespace qel
