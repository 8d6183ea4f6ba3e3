#pragma once

#include <cstdint>

#include "TolmBase/Singleton.h"

namespace TolmLPCFrame {

/// The endpoint that the guard connects to. One instance in the process:
/// Tolm::Base::CSingleton<CTolmGuardConnectManager>::Instance().
///
/// This build has no such endpoint: InitManager says so in the log and fails, which the frame's start
/// tolerates.
class CTolmGuardConnectManager {
 public:
  virtual ~CTolmGuardConnectManager() = default;
  virtual bool InitManager(std::int32_t frame_type);
  virtual void UninitManager();

 private:
  friend class Tolm::Base::CSingleton<CTolmGuardConnectManager>;
  CTolmGuardConnectManager() = default;
};

}  // namespace TolmLPCFrame
