#include <TolmPlugin/Plugin.h>
#include <gtest/gtest.h>

namespace tolm::test {
namespace {

using TolmPlugin::Plugin;

TEST(PluginStop, ByItsInitHookWhileStartIsUnderWay) {
  for (int i = 0; i < 100; ++i) {
    Plugin plugin("stops-at-once");
    plugin.OnInit([&plugin] { plugin.Stop(); });
    ASSERT_TRUE(plugin.Start("nobody-listens-here"));
    plugin.WaitEnd();
    // Destroyed while its thread is perhaps still on its way out of the hook.
  }
}

}  // namespace
}  // namespace tolm::test
