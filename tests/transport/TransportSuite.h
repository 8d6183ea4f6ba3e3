#pragma once

// What every transport has to stand: one set of cases, instantiated for each kind. A new kind is a class
// that makes its LocalTransport, and one line of TOLM_TRANSPORT_SUITE.

#include <gtest/gtest.h>

#include <memory>

#include "os/LocalStream.h"

namespace tolm::test {

/// Makes a transport and what it needs around it, for one test.
class TransportKind {
 public:
  virtual ~TransportKind() = default;
  virtual os::LocalTransport& transport() = 0;
};
using MakeTransportKind = std::unique_ptr<TransportKind> (*)();

class TransportSuite : public testing::TestWithParam<MakeTransportKind> {
 protected:
  os::LocalTransport& transport() { return kind_->transport(); }

 private:
  const std::unique_ptr<TransportKind> kind_ = GetParam()();
};

class Messaging : public TransportSuite {};
class Connecting : public TransportSuite {};
class BadPeers : public TransportSuite {};
class Pressure : public TransportSuite {};
class Stopping : public TransportSuite {};

}  // namespace tolm::test

#define TOLM_TRANSPORT_SUITE(name, make)                             \
  INSTANTIATE_TEST_SUITE_P(name, Messaging, testing::Values(make));  \
  INSTANTIATE_TEST_SUITE_P(name, Connecting, testing::Values(make)); \
  INSTANTIATE_TEST_SUITE_P(name, BadPeers, testing::Values(make));   \
  INSTANTIATE_TEST_SUITE_P(name, Pressure, testing::Values(make));   \
  INSTANTIATE_TEST_SUITE_P(name, Stopping, testing::Values(make))
