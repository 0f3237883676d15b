#pragma once

#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Tools/skelda-load/LogRows.h"

struct pg_conn;
struct pg_result;

namespace skelda::tools {

/// The tables of schema.sql in a PostgreSQL database. Connects when it is first needed, and again
/// after any failure that took the connection; makes the schema where there is none. One thread.
class Database {
 public:
  /// The database could not be reached, or could not do it now: the same may succeed later.
  struct Unavailable : std::runtime_error {
    using std::runtime_error::runtime_error;
  };
  /// It will not take what was given, however often it is tried.
  struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  /// `connection` as libpq has it: "host=... dbname=..." or "postgresql://...".
  explicit Database(std::string connection);

  /// Connects, where there is no connection, and makes the schema, where there is none. Throws
  /// Unavailable.
  void connect();

  /// Which of these logs, named by their digests, are not there. Throws Unavailable.
  std::vector<bool> areMissing(const std::vector<std::string>& digests);

  /// Adds, in one transaction, those of the logs that are not there yet; tells how many these were.
  /// `beforeRows(i)` is called for each of these before anything of it can be seen; what it throws
  /// undoes everything. Throws Unavailable or Refused; then nothing was added, or, when the
  /// connection broke at the very end, everything was and the next call finds it there.
  std::size_t add(std::span<const LogRows> logs,
                  const std::function<void(std::size_t)>& beforeRows);

 private:
  struct Close {
    void operator()(pg_conn* connection) const;
  };
  struct Clear {
    void operator()(pg_result* result) const;
  };
  using Result = std::unique_ptr<pg_result, Clear>;

  void prepare();
  Result run(const char* command);
  /// Throws for the failure that the connection or the result tells of.
  [[noreturn]] void fail(pg_result* result);
  /// `feed(put)` hands over the lines, by put(text).
  using Put = std::function<void(std::string_view)>;
  void copy(const std::string& target, const std::function<void(const Put&)>& feed);
  std::size_t addAll(std::span<const LogRows> logs,
                     const std::function<void(std::size_t)>& beforeRows);

  const std::string connectionText_;
  std::unique_ptr<pg_conn, Close> connection_;
};

/// schema.sql.
std::string_view schemaText();

}  // namespace skelda::tools
