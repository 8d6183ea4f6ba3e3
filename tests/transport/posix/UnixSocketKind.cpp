#include "TransportSuite.h"
#include "support/TempDirectory.h"

namespace tolm::test {
namespace {

class UnixSocketKind final : public TransportKind {
 public:
  os::LocalTransport& transport() override { return os::SystemTransport(); }

 private:
  const RuntimeDirectory directory_;
};

TOLM_TRANSPORT_SUITE(UnixSocket,
                     []() -> std::unique_ptr<TransportKind> { return std::make_unique<UnixSocketKind>(); });

}  // namespace
}  // namespace tolm::test
