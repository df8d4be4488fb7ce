// Holds the output writer of a recording.
#ifndef ZEVA_ENCODE_MOVIE_BASE_H
#define ZEVA_ENCODE_MOVIE_BASE_H

#include <memory>

#include "output/base_writer.h"

namespace zeva {

class MovieBase {
 public:
  // Takes ownership of `writer`; without one, a plain BaseWriter is used.
  explicit MovieBase(BaseWriter* writer)
      : writer_(writer != nullptr ? writer : new BaseWriter()) {}
  virtual ~MovieBase() = default;
  MovieBase(const MovieBase&) = delete;
  MovieBase& operator=(const MovieBase&) = delete;

  BaseWriter* writer() const { return writer_.get(); }

 protected:
  std::unique_ptr<BaseWriter> writer_;
};

}  // namespace zeva

#endif  // ZEVA_ENCODE_MOVIE_BASE_H
