#pragma once

// The frame alone among scripted neighbours: the guard's side, too, is a stand-in.

#include "FrameScene.h"
#include "ScriptedGuard.h"

namespace tolm::test {

class FrameTest : public FrameScene {
 protected:
  FrameTest() { guard_.Reset(); }
  void TearDown() override {
    guard_.Reset();
    FrameScene::TearDown();
  }

  ScriptedGuard& guard_ = ScriptedGuard::Get();
};

}  // namespace tolm::test
