#include "zeva/filter_base.h"

FilterBase::FilterBase() = default;
FilterBase::FilterBase(const FilterBase&) = default;
FilterBase& FilterBase::operator=(const FilterBase&) = default;
FilterBase::~FilterBase() = default;

AVFrame* FilterBase::filter(AVFrame* frame) { return frame; }

void FilterBase::filter(AVPacket*) {}
