// The hook through which a host processes what the classic recording encodes.
#ifndef ZEVA_FILTER_BASE_H
#define ZEVA_FILTER_BASE_H

#include "zeva/export.h"

struct AVFrame;
struct AVPacket;

// Derive from this class and override either operation, then hand an
// instance to ZEVA_add_video_filter or ZEVA_add_audio_filter. The video
// encoder takes ownership of its filter and deletes it when it is destroyed;
// the audio encoder only borrows its filter, which must outlive the capture.
// Both operations run on the thread that writes frames and stops the capture.
class ZEVA_API FilterBase {
 public:
  FilterBase();
  FilterBase(const FilterBase& other);
  FilterBase& operator=(const FilterBase& other);  // the class has no data to copy
  virtual ~FilterBase();

  // Called on each video frame before it is encoded; the returned frame is
  // the one encoded. It may be `frame` itself or a frame the filter owns,
  // which must stay valid until the next call. Default: returns `frame`.
  virtual AVFrame* filter(AVFrame* frame);

  // Called on each encoded audio packet before it is written; the packet may
  // be changed in place but stays the encoder's. Default: does nothing.
  virtual void filter(AVPacket* packet);
};

#endif  // ZEVA_FILTER_BASE_H
