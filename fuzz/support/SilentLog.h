#pragma once

#include "TolmBase/Log.h"

namespace fuzz {

/// Log lines are made and go nowhere: hostile texts end up in them, and a million times on stderr is too
/// often.
inline void SilenceLog() {
  Tolm::Base::SetLogStderrLevel(Tolm::Base::kLogLevelOff);
  Tolm::Base::SetLogCallback([](int, const char*, const char*, void*) {}, nullptr,
                             Tolm::Base::kLogLevelTrace);
}

}  // namespace fuzz
