#include "net/TolmGuardConnectionManager.h"

#include "TolmBase/LogLine.h"
#include "common/Constants.h"

namespace TolmLPCFrame {

bool CTolmGuardConnectManager::InitManager(std::int32_t frame_type) {
  TOLM_LOG(Tolm::Base::kLogLevelInfo, kTagInfo,
           "this build has no guard endpoint: no guard can connect, frame_type[%d]", frame_type);
  return false;
}

void CTolmGuardConnectManager::UninitManager() {}

}  // namespace TolmLPCFrame
