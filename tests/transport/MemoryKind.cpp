#include "TransportSuite.h"

namespace tolm::test {
namespace {

class MemoryKind final : public TransportKind {
 public:
  os::LocalTransport& transport() override { return *transport_; }

 private:
  const std::unique_ptr<os::LocalTransport> transport_ = os::CreateMemoryTransport();
};

TOLM_TRANSPORT_SUITE(Memory,
                     []() -> std::unique_ptr<TransportKind> { return std::make_unique<MemoryKind>(); });

}  // namespace
}  // namespace tolm::test
