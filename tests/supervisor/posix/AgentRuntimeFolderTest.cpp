// Events are files here, and need a folder.

#include <fstream>

#include "AgentTest.h"

namespace tolm::test {
namespace {

TEST_F(AgentTest, WithoutARuntimeFolderItCannotBegin) {
  std::ofstream(runtime_.endpoints()) << "not a folder";
  StartAgent();
  EXPECT_EQ(agent_->WaitExit(), (Exit{1, false}));
  EXPECT_THAT(agent_->Output(), testing::HasSubstr("is not a directory"));
}

}  // namespace
}  // namespace tolm::test
