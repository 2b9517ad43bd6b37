#pragma once

#include <easylogging++.h>

/// One record of the logger "default" at a level (Debug, Info, Error, ...); values are streamed
/// into it and joined as they stand. The record carries the bare name of the calling function.
#define PROCESS_LOG(level)                                         \
  el::base::Writer(el::Level::level, __FILE__, __LINE__, __func__) \
      .construct(1, el::base::consts::kDefaultLoggerId)
