#pragma once

#include "TolmBase/FileUtil.h"
#include "support/Folder.h"
#include "support/SilentLog.h"

namespace fuzz {

/// Before the first input: the frame's and the guard's code look for their files in OwnFolder, and log
/// nothing.
inline void BeginInOwnFolder() {
  SilenceLog();
  Tolm::Base::FileUtil::InitCurExeDirUtf8(OwnFolder().path().string());
}

}  // namespace fuzz
