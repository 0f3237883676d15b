#include "Tools/skelda-fleet/FleetTables.h"

#include <fmt/format.h>
#include <map>

namespace skelda::fleet {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

struct Row {
  std::vector<std::string> labels;
  Scenario scenario;
};

struct Column {
  const char* title;
  std::string (*text)(const Scenario&, const Figures&);
};

struct Table {
  std::vector<std::uint32_t> devices;
  std::vector<const char*> labels;
  /// For a fleet of that many devices.
  std::vector<Row> (*rows)(std::uint32_t devices);
  std::vector<Column> columns;
};

double inSeconds(Instant instant) {
  return static_cast<double>(instant.count()) / 1e6;
}

/// "1,234,567"
std::string countText(std::uint64_t count) {
  std::string text = std::to_string(count);
  for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, ",");
  return text;
}

std::string shareText(std::uint64_t part, std::uint64_t of) {
  if (part == 0 || of == 0) return "0";
  return fmt::format("{:.2g} %", 100 * static_cast<double>(part) / static_cast<double>(of));
}

// -- What the columns say

const Column kUsual{"usual", [](const Scenario&, const Figures& figures) {
                      return fmt::format("{:.1f}", figures.requestsASecondBefore);
                    }};
const Column kPeakInTrouble{"peak in it", [](const Scenario&, const Figures& figures) {
                              return countText(figures.peakInTrouble);
                            }};
const Column kPeak{"peak after it",
                   [](const Scenario&, const Figures& figures) { return countText(figures.peak); }};
const Column kWaiting{"logs waiting", [](const Scenario&, const Figures& figures) {
                        return countText(figures.waitedAtReturn);
                      }};
const Column kRefused{
    "refused", [](const Scenario&, const Figures& figures) { return countText(figures.refusals); }};
const Column kTimedOut{"timed out", [](const Scenario&, const Figures& figures) {
                         return countText(figures.timeOuts);
                       }};
const Column kRepeats{
    "repeats", [](const Scenario&, const Figures& figures) { return countText(figures.repeats); }};
const Column kHalf{"half after", [](const Scenario&, const Figures& figures) {
                     return durationText(figures.half);
                   }};
const Column kMost{"99 % after", [](const Scenario&, const Figures& figures) {
                     return durationText(figures.most);
                   }};
const Column kAll{
    "all after", [](const Scenario&, const Figures& figures) { return durationText(figures.all); }};
const Column kLost{"lost", [](const Scenario&, const Figures& figures) {
                     return countText(figures.lostOverLimit + figures.lostInFolder);
                   }};
const Column kLogsInTrouble{"logs in it", [](const Scenario&, const Figures& figures) {
                              return countText(figures.logsInTrouble);
                            }};
const Column kLostOverFifty{"lost over fifty", [](const Scenario&, const Figures& figures) {
                              return shareText(figures.lostOverLimit, figures.logsInTrouble);
                            }};
const Column kLostInFolder{"lost in the folder", [](const Scenario&, const Figures& figures) {
                             return shareText(figures.lostInFolder, figures.logsInTrouble);
                           }};
const Column kFirstLoss{"the first after", [](const Scenario&, const Figures& figures) {
                          return durationText(figures.firstLoss);
                        }};
const Column kOthersRefused{"others refused", [](const Scenario&, const Figures& figures) {
                              return countText(figures.othersRefusals);
                            }};
const Column kOthersWait{"others wait at most", [](const Scenario&, const Figures& figures) {
                           return durationText(figures.othersLongestWait);
                         }};

// -- What the rows play

std::string admissionText(const Scenario& scenario) {
  const std::string wait = fmt::format("over {:g} s", scenario.longestWait);
  if (scenario.admission == Admission::queue) return "all wait";
  return (scenario.admission == Admission::shed ? "503 " : "503 by key ") + wait;
}

std::vector<Row> outages(std::uint32_t devices) {
  return {{{"down"}, {.devices = devices, .trouble = Trouble::refused}},
          {{"hangs"}, {.devices = devices, .trouble = Trouble::silent}}};
}

std::vector<Row> answers(std::uint32_t devices) {
  return {
      {{"503"}, {.devices = devices, .trouble = Trouble::status503}},
      {{"429"}, {.devices = devices, .trouble = Trouble::status429}},
      {{"every second answer reset"},
       {.devices = devices, .trouble = Trouble::reset, .after = hours(6)}},
      {{"a twentieth with a wrong clock"}, {.devices = devices, .trouble = Trouble::clockSkew}}};
}

std::vector<Row> returns(std::uint32_t devices) {
  std::vector<Row> rows;
  const auto add = [&](Instant spread, double following, Admission admission, double wait) {
    const Scenario scenario{.devices = devices,
                            .trouble = Trouble::network,
                            .spread = spread,
                            .admission = admission,
                            .longestWait = wait,
                            .following = following};
    rows.push_back(
        {{durationText(spread), following > 0 ? "yes" : "no", admissionText(scenario)}, scenario});
  };
  add(seconds(1), 1, Admission::queue, 1);
  add(seconds(1), 1, Admission::shed, 15);
  add(seconds(1), 1, Admission::shed, 1);
  add(minutes(10), 1, Admission::queue, 1);
  add(seconds(1), 0, Admission::queue, 1);
  return rows;
}

std::vector<Row> limits(std::uint32_t devices) {
  std::vector<Row> rows;
  const auto add = [&](Trouble trouble, Instant every, Instant length) {
    rows.push_back({{trouble == Trouble::disk ? "no block can be stored" : "server down",
                     durationText(every), durationText(length)},
                    {.devices = devices,
                     .trouble = trouble,
                     .length = length,
                     .every = every,
                     .following = 0}});
  };
  for (const Instant every : {minutes(5), minutes(30), minutes(120)}) {
    for (const Instant length : {hours(1), hours(12), hours(24), hours(72), hours(168)}) {
      add(Trouble::refused, every, length);
    }
  }
  for (const Instant length : {hours(1), hours(4), hours(24)}) {
    add(Trouble::disk, minutes(30), length);
  }
  return rows;
}

std::vector<Row> keys(std::uint32_t devices) {
  std::vector<Row> rows;
  for (const auto admission : {Admission::queue, Admission::shed, Admission::byKey}) {
    const Scenario scenario{.devices = devices, .trouble = Trouble::oneKey, .admission = admission};
    rows.push_back({{admissionText(scenario)}, scenario});
  }
  // Where each key has an address of its own, nobody need be heard to be refused.
  Row before = rows.back();
  before.scenario.refusalCost = 0.005;
  before.labels.front() = "the same, before the handshake";
  rows.push_back(std::move(before));
  return rows;
}

const std::map<std::string, Table>& tables() {
  static const std::map<std::string, Table> kTables{
      {"outage",
       {{1'000, 10'000, 100'000, 1'000'000},
        {"the server"},
        outages,
        {kUsual, kPeakInTrouble, kPeak, kWaiting, kHalf, kMost, kAll, kRepeats, kLost}}},
      {"answers",
       {{1'000, 10'000, 100'000, 1'000'000},
        {"for an hour"},
        answers,
        {kUsual, kPeakInTrouble, kPeak, kRefused, kRepeats, kWaiting, kAll, kLost}}},
      {"return",
       {{1'000, 10'000, 100'000, 1'000'000},
        {"come back within", "follow the network", "the server"},
        returns,
        {kPeak, kRefused, kTimedOut, kRepeats, kHalf, kMost, kAll, kLost}}},
      {"limits",
       {{1'000},
        {"trouble", "a log every", "for"},
        limits,
        {kLogsInTrouble, kLostOverFifty, kLostInFolder, kFirstLoss}}},
      {"keys",
       {{10'000, 100'000, 1'000'000},
        {"the server"},
        keys,
        {kPeak, kOthersRefused, kOthersWait, kHalf, kMost, kAll}}},
  };
  return kTables;
}

std::string lineOf(const std::vector<std::string>& cells) {
  return fmt::format("| {} |", fmt::join(cells, " | "));
}

}  // namespace

std::string durationText(const std::optional<Instant>& duration) {
  if (!duration) return "-";
  const double length = inSeconds(*duration);
  if (length < 120) return fmt::format("{:.3g} s", length);
  if (length < 3600) return fmt::format("{:.0f} min", length / 60);
  return fmt::format("{:.3g} h", length / 3600);
}

std::vector<std::string> FleetTables::names() {
  std::vector<std::string> names;
  for (const auto& [name, table] : tables()) names.push_back(name);
  return names;
}

void FleetTables::print(const std::string& name, std::vector<std::uint32_t> devices,
                        const std::function<void(const std::string&)>& line) {
  const Table& table = tables().at(name);
  std::vector<std::string> head{"devices"};
  head.insert(head.end(), table.labels.begin(), table.labels.end());
  for (const auto& column : table.columns) head.push_back(column.title);
  line(lineOf(head));
  line(lineOf(std::vector<std::string>(head.size(), "---")));
  for (const std::uint32_t count : devices.empty() ? table.devices : devices) {
    for (const auto& row : table.rows(count)) {
      const Figures figures = FleetSimulation(row.scenario).run();
      std::vector<std::string> cells{countText(count)};
      cells.insert(cells.end(), row.labels.begin(), row.labels.end());
      for (const auto& column : table.columns) cells.push_back(column.text(row.scenario, figures));
      line(lineOf(cells));
    }
  }
}

}  // namespace skelda::fleet
