// Takes the jitter out of host timestamps: each one is pulled towards the
// time predicted from a slowly adapting mean interval.
#ifndef ZEVA_PACKET_PTS_SMOOTHER_H
#define ZEVA_PACKET_PTS_SMOOTHER_H

#include <cstdint>

namespace zeva {

class PtsSmoother {
 public:
  // The smoothed value of `pts_us`. The first value passes unchanged and the
  // second sets the mean interval; from then on the mean moves by `alpha` of
  // each new interval and a timestamp keeps `gain` of its distance from the
  // predicted one. One thread.
  int64_t smooth(int64_t pts_us);

 private:
  bool first_ = true;
  double avg_ = 0.0;  // mean interval, microseconds
  int64_t last_ = 0;  // the last smoothed value
  double alpha_ = 0.01;
  double gain_ = 0.1;
};

}  // namespace zeva

#endif  // ZEVA_PACKET_PTS_SMOOTHER_H
