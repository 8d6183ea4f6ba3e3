// In every program that is linked with the tests' support: when logs are to be searched, everything that is
// logged in this program goes to a file, at the lowest level, from before main on.

#include "TolmBase/Log.h"
#include "support/TestLogs.h"

namespace tolm::test {
namespace {

[[maybe_unused]] const bool g_logs_everything = [] {
  const auto file = TestLogFile("own");
  return file && Tolm::Base::SetLogFile(*file, kTestLogBytes, 1, 1);
}();

}  // namespace
}  // namespace tolm::test
