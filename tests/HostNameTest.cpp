#include <gtest/gtest.h>

#include "platform/HostName.h"
#include "tests/support/ToolRun.h"

TEST(HostName, IsTheOneThatTheSystemsOwnProgramPrints) {
  const ToolRun run = runTool(ToolStart{.arguments = {"-n"}, .program = "uname"});
  ASSERT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_EQ(run.output, platform::hostName() + "\n");
}
