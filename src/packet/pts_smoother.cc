#include "packet/pts_smoother.h"

namespace zeva {

int64_t PtsSmoother::smooth(int64_t p) {
  if (first_) {
    avg_ = 0.0;
    first_ = false;
  } else {
    const double d = static_cast<double>(p - last_);
    if (avg_ == 0.0) {
      avg_ = d;
    } else {
      avg_ = (1.0 - alpha_) * avg_ + alpha_ * d;
      const int64_t q = last_ + static_cast<int64_t>(avg_ + 0.5);
      p = q + static_cast<int64_t>(static_cast<double>(p - q) * gain_);
    }
  }
  last_ = p;
  return p;
}

}  // namespace zeva
