#include "Tools/skelda-doctor/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace skelda::tools {
namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const SkeldaAccount::Records& records) {
  return {{"accepted", records.accepted},
          {"stored", records.stored},
          {"waiting", records.waiting},
          {"cutOff", records.cutOff},
          {"dropped", records.dropped()},
          {"droppedBySessionRule", records.droppedBySessionCap + records.droppedBySessionDuration},
          {"replayed", records.replayed}};
}

Json jsonOf(const SkeldaAccount& account) {
  return {{"events", jsonOf(account.events)},
          {"choices", jsonOf(account.choices)},
          {"logs",
           {{"commited", account.logs.commited},
            {"stored", account.logs.stored},
            {"waiting", account.logs.waiting},
            {"removed", account.logs.removed()}}},
          {"blocks",
           {{"stored", account.blocks.stored},
            {"acknowledged", account.blocks.acknowledged},
            {"rejected", account.blocks.rejected},
            {"waiting", account.blocks.waiting},
            {"removed", account.blocks.removed()}}},
          {"requests", account.requests},
          {"lastAnswer", account.lastAnswer},
          {"lastAnswerTime", account.lastAnswerTime}};
}

/// Broken at blanks, each line but the first behind `indent`.
std::string wrapped(const std::string& text, std::size_t indent) {
  constexpr std::size_t kWidth = 96;
  std::string out;
  std::size_t column = indent;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    if (column > indent && column + 1 + end - at > kWidth) {
      out += '\n' + std::string(indent, ' ');
      column = indent;
    } else if (column > indent) {
      out += ' ';
      ++column;
    }
    out += text.substr(at, end - at);
    column += end - at;
    at = end + 1;
  }
  return out;
}

/// Nothing in a finding moves a terminal's cursor.
std::string plain(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return text;
}

}  // namespace

std::string textOf(const SkeldaStatus& status) {
  const auto& account = status.account;
  std::string out =
      fmt::format("bundle   {}\nstorage  {}\nserver   {}\n", status.bundle, status.storage,
                  status.server.empty() ? "none set, or not known" : status.server);
  out += fmt::format(
      "events   {} accepted, {} stored in logs, {} dropped, {} on their way\n"
      "logs     {} closed, {} waiting; blocks: {} waiting, {} acknowledged\n",
      account.events.accepted, account.events.stored, account.events.dropped(),
      account.events.waiting, account.logs.commited, account.logs.waiting, account.blocks.waiting,
      account.blocks.acknowledged);
  for (const bool blocking : {true, false}) {
    for (const auto& finding : status.findings) {
      if (finding.isBlocking != blocking) continue;
      out += fmt::format("\n{:8} {}\n", blocking ? "HELD UP" : "note",
                         wrapped(plain(finding.text), 9));
      if (!finding.next.empty())
        out += fmt::format("         > {}\n", wrapped(plain(finding.next), 11));
    }
  }
  out += status.holdsUp() ? "\nSomething holds events up.\n" : "\nNothing holds events up.\n";
  return out;
}

std::string jsonOf(const SkeldaStatus& status) {
  auto findings = Json::array();
  for (const auto& finding : status.findings) {
    findings.push_back({{"code", finding.code},
                        {"blocking", finding.isBlocking},
                        {"text", finding.text},
                        {"next", finding.next}});
  }
  const Json whole{{"bundle", status.bundle},          {"storage", status.storage},
                   {"server", status.server},          {"holder", status.holder},
                   {"holdsUp", status.holdsUp()},      {"findings", findings},
                   {"account", jsonOf(status.account)}};
  return whole.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace skelda::tools
