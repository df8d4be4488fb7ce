// ZEVALib: records raw or encoded pictures and sound into movie files and live
// streams. Hosts include this one header.
#ifndef ZEVA_ZEVA_H
#define ZEVA_ZEVA_H

#include "zeva/classic.h"
#include "zeva/export.h"
#include "zeva/filter_base.h"
#include "zeva/log.h"
#include "zeva/movie_info.h"
#include "zeva/packet.h"
#include "zeva/repair.h"
#include "zeva/version.h"

#endif  // ZEVA_ZEVA_H
