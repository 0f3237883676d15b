#include "Tools/skelda-load/Database.h"

#include <fmt/format.h>
#include <libpq-fe.h>

#include <unordered_map>
#include <vector>

namespace skelda::tools {
namespace {

/// What is sent at once.
constexpr std::size_t kPiece = std::size_t{64} << 10;

/// Whether it lies in what was sent: data that do not fit, or more than the server can ever take.
bool isOfTheData(std::string_view state) {
  return state.starts_with("22") || state.starts_with("23") || state.starts_with("54");
}

/// Puts the log's number before each of its lines.
void appendNumbered(std::string& out, const std::string& lines, std::string_view number) {
  for (std::size_t at = 0; at < lines.size();) {
    const std::size_t end = lines.find('\n', at) + 1;
    out.append(number).append(1, '\t').append(lines, at, end - at);
    at = end;
  }
}

}  // namespace

Database::Database(std::string connection) : connectionText_(std::move(connection)) {}

void Database::Close::operator()(pg_conn* connection) const {
  PQfinish(connection);
}

void Database::Clear::operator()(pg_result* result) const {
  PQclear(result);
}

void Database::connect() {
  if (connection_ && PQstatus(connection_.get()) == CONNECTION_OK) return;
  // What was given last counts: these are what a connection has unless it is told otherwise. A
  // server that has gone without a word is noticed in half a minute.
  const char* keys[] = {"connect_timeout",           "keepalives_idle",  "keepalives_interval",
                        "keepalives_count",          "tcp_user_timeout", "client_encoding",
                        "fallback_application_name", "dbname",           nullptr};
  const char* values[] = {
      "10", "10", "5", "4", "30000", "UTF8", "skelda-load", connectionText_.c_str(), nullptr};
  connection_.reset(PQconnectdbParams(keys, values, 1));
  try {
    prepare();
  } catch (...) {
    connection_.reset();
    throw;
  }
}

void Database::prepare() {
  if (!connection_ || PQstatus(connection_.get()) != CONNECTION_OK) fail(nullptr);
  PQsetNoticeProcessor(
      connection_.get(), [](void*, const char*) {}, nullptr);
  run("SET datestyle = 'ISO'; BEGIN; SELECT pg_advisory_xact_lock(hashtext('skelda.schema'))");
  const Result there = run("SELECT to_regclass('skelda.logs')");
  if (PQgetisnull(there.get(), 0, 0)) run(std::string(schemaText()).c_str());
  run("COMMIT");
  run("CREATE TEMPORARY TABLE incoming (digest bytea, api_key text, received timestamptz, "
      "bytes bigint, frames bigint, events bigint, counter bigint, closed bigint, device text, "
      "fault text) ON COMMIT DELETE ROWS");
}

Database::Result Database::run(const char* command) {
  Result result(PQexec(connection_.get(), command));
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_COPY_IN) {
    fail(result.get());
  }
  return result;
}

void Database::fail(pg_result* result) {
  const auto field = [&](int which) {
    const char* text = result != nullptr ? PQresultErrorField(result, which) : nullptr;
    return std::string(text != nullptr ? text : "");
  };
  std::string why = field(PG_DIAG_MESSAGE_PRIMARY);
  if (why.empty() && connection_) why = PQerrorMessage(connection_.get());
  // One line, which may quote what was sent: it stands in a header of the stream, too.
  for (char& byte : why) {
    if (static_cast<unsigned char>(byte) < ' ') byte = ' ';
  }
  while (why.ends_with(' ')) why.pop_back();
  if (isOfTheData(field(PG_DIAG_SQLSTATE))) throw Refused(why);
  throw Unavailable(why.empty() ? "no connection" : why);
}

void Database::copy(const std::string& target, const std::function<void(const Put&)>& feed) {
  run(("COPY " + target + " FROM STDIN").c_str());
  feed([&](std::string_view text) {
    if (PQputCopyData(connection_.get(), text.data(), static_cast<int>(text.size())) != 1) {
      fail(nullptr);
    }
  });
  if (PQputCopyEnd(connection_.get(), nullptr) != 1) fail(nullptr);
  const Result result(PQgetResult(connection_.get()));
  if (PQresultStatus(result.get()) != PGRES_COMMAND_OK) fail(result.get());
  while (const Result more{PQgetResult(connection_.get())}) {
  }
}

std::vector<bool> Database::areMissing(const std::vector<std::string>& digests) {
  connect();
  try {
    const Result found =
        run(fmt::format(
                "SELECT (SELECT 1 FROM skelda.logs WHERE digest = decode(asked, 'hex')) IS NULL "
                "FROM unnest('{{{}}}'::text[]) WITH ORDINALITY AS every(asked, place) "
                "ORDER BY place",
                fmt::join(digests, ","))
                .c_str());
    std::vector<bool> missing;
    for (int i = 0; i < PQntuples(found.get()); ++i) {
      missing.push_back(*PQgetvalue(found.get(), i, 0) == 't');
    }
    return missing;
  } catch (...) {
    connection_.reset();
    throw;
  }
}

std::size_t Database::add(std::span<const LogRows> logs,
                          const std::function<void(std::size_t)>& beforeRows) {
  connect();
  try {
    return addAll(logs, beforeRows);
  } catch (const Refused&) {
    // One of the data's own faults leaves the connection as it is.
    Result(PQexec(connection_.get(), "ROLLBACK"));
    throw;
  } catch (...) {
    connection_.reset();
    throw;
  }
}

std::size_t Database::addAll(std::span<const LogRows> logs,
                             const std::function<void(std::size_t)>& beforeRows) {
  run("BEGIN");
  copy(fmt::format("incoming ({})", LogRows::kColumns), [&](const Put& put) {
    for (const LogRows& log : logs) put(log.line());
  });
  // In one order, so that two loaders with the same logs wait for one another and not each for
  // each.
  const Result added = run(fmt::format("INSERT INTO skelda.logs ({0}) SELECT {0} FROM incoming "
                                       "ORDER BY digest ON CONFLICT DO NOTHING "
                                       "RETURNING encode(digest, 'hex'), log",
                                       LogRows::kColumns)
                               .c_str());
  std::unordered_map<std::string_view, std::string_view> numbers;
  for (int i = 0; i < PQntuples(added.get()); ++i) {
    numbers[PQgetvalue(added.get(), i, 0)] = PQgetvalue(added.get(), i, 1);
  }
  std::vector<std::pair<std::size_t, std::string_view>> wanted;
  for (std::size_t i = 0; i < logs.size(); ++i) {
    const auto number = numbers.extract(logs[i].digest);  // once, though it may be there twice
    if (!number.empty()) wanted.emplace_back(i, number.mapped());
  }
  for (const auto& [index, number] : wanted) beforeRows(index);

  for (std::size_t table = 0; table < LogTable::count; ++table) {
    copy(LogTable::targets()[table], [&](const Put& put) {
      std::string piece;
      for (const auto& [index, number] : wanted) {
        appendNumbered(piece, logs[index].rows[table], number);
        if (piece.size() < kPiece) continue;
        put(piece);
        piece.clear();
      }
      if (!piece.empty()) put(piece);
    });
  }
  run("COMMIT");
  return wanted.size();
}

}  // namespace skelda::tools
