#include "Tools/skelda-fleet/FleetTables.h"

#include "Tests/Support/Documents.h"

namespace {

using namespace skelda::fleet;

/// Each table stands in the document behind the command that makes it. Of the rows, those of small
/// fleets are made again: the others come of the same code.
TEST(FleetTablesTest, TheDocumentSaysWhatTheSimulationDoes) {
  const std::string text = document("fleet.md");
  for (const std::string& name : FleetTables::names()) {
    const auto command = text.find("`skelda-fleet table " + name + "`");
    ASSERT_NE(command, std::string::npos) << name;
    const auto begin = text.find("\n| ", command);
    const auto end = text.find("\n\n", begin);
    ASSERT_NE(end, std::string::npos) << name;
    std::set<std::string> written, made;
    std::set<std::uint32_t> devices;
    std::istringstream lines(text.substr(begin + 1, end - begin));
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with("| 100,000 ") || line.starts_with("| 1,000,000 ")) continue;
      if (line.starts_with("| 1,000 ")) devices.insert(1'000);
      if (line.starts_with("| 10,000 ")) devices.insert(10'000);
      written.insert(line);
    }
    ASSERT_FALSE(devices.empty()) << name;
    FleetTables::print(name, {devices.begin(), devices.end()},
                       [&](const std::string& line) { made.insert(line); });
    EXPECT_EQ(written, made) << name;
  }
}

TEST(FleetTablesTest, NoLogOfARunIsWithoutAFate) {
  for (const Trouble trouble : {Trouble::refused, Trouble::silent, Trouble::reset, Trouble::network,
                                Trouble::disk, Trouble::clockSkew}) {
    const Figures figures = FleetSimulation({.devices = 100,
                                             .trouble = trouble,
                                             .length = std::chrono::hours(30),
                                             .after = std::chrono::hours(100),
                                             .every = std::chrono::minutes(20)})
                                .run();
    const auto name = static_cast<int>(trouble);
    EXPECT_EQ(figures.wantingAtEnd, 0u) << name;
    EXPECT_EQ(figures.taken - figures.repeats + figures.lostOverLimit + figures.lostInFolder +
                  figures.heldAtEnd,
              figures.logs)
        << name;
  }
}

}  // namespace
