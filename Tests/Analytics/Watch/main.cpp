#include "Tests/Support/Scenario.h"

int main(int argc, char** argv) {
  if (!skelda::testing::Scenario::requested().empty()) {
    return skelda::testing::Scenario::runRequested();
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
