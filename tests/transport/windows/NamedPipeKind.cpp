#include "TransportSuite.h"
#include "support/TempDirectory.h"

namespace tolm::test {
namespace {

class NamedPipeKind final : public TransportKind {
 public:
  os::LocalTransport& transport() override { return os::SystemTransport(); }

 private:
  const RuntimeDirectory directory_;
};

TOLM_TRANSPORT_SUITE(NamedPipe,
                     []() -> std::unique_ptr<TransportKind> { return std::make_unique<NamedPipeKind>(); });

}  // namespace
}  // namespace tolm::test
