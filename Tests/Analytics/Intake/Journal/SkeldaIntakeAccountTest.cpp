#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Intake/Journal/SkeldaIntake.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Tests/Support/AgentHome.h"

namespace skelda::testing {
namespace {

TEST(SkeldaIntakeAccount, ALogThatIsThereCountsAndOneThatNobodyCountedAsGoneIsNamed) {
  const AgentHome home;
  auto& page = SkeldaAccounting::page();
  const auto& unreadable = page.logsRemoved[static_cast<std::size_t>(SkeldaLogRemoval::unreadable)];
  const std::string folder = SkeldaAgentFiles::commitedFrameLogsFolder();
  std::filesystem::create_directories(folder);
  std::ofstream(folder + '/' + SkeldaAgentFiles::commitedFrameLogName() + "_1.000000");
  const std::uint64_t commited = page.logsCommited, gone = unreadable;
  SkeldaIntake::settleLogs();
  EXPECT_EQ(page.logsCommited, commited + 1);
  EXPECT_EQ(unreadable, gone);
  std::filesystem::remove_all(folder);
  SkeldaIntake::settleLogs();
  EXPECT_EQ(page.logsCommited, commited + 1);
  EXPECT_EQ(unreadable, gone + 1);
}

}  // namespace
}  // namespace skelda::testing
