#include "Tools/skelda-load/LogRows.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Tools/Shared/Digest.h"
#include "Tools/Shared/FrameLogReader.h"
#include "Tools/Shared/PayloadText.h"
#include "Tools/skelda-load/CopyRow.h"

namespace skelda::tools {
namespace {

using Types = SkeldaStreamFrameTypeUtil;
using platform::Dictionary;
using platform::Value;

/// An index takes no longer ones, and nobody gives such identifiers.
constexpr std::size_t kLongestDevice = 200;

/// A column of skelda.environments and where its value stands in a log.
struct EnvironmentColumn {
  const char* column;
  Types::FrameType type;
  const char* object;  // around the key, or null
  const char* key;
  CopyRow& (CopyRow::*append)(const Value*);
};

constexpr const char* kDevice = "sk.device.properties";
constexpr const char* kIdentifiers = "sk.reported.id";
constexpr auto kEnvironment = std::to_array<EnvironmentColumn>({
    {"app_version", Types::kAppInfo, nullptr, "sk.app.version", &CopyRow::text},
    {"app_version_override", Types::kAppInfo, nullptr, "sk.app.version.override", &CopyRow::text},
    {"app_build", Types::kAppInfo, nullptr, "sk.app.version.code", &CopyRow::text},
    {"bundle", Types::kAppInfo, nullptr, "sk.bundle.id", &CopyRow::text},
    {"build_environment", Types::kAppInfo, nullptr, "sk.build.environment", &CopyRow::number},
    {"arch", Types::kDeviceProperties, kDevice, "device.arch", &CopyRow::text},
    {"os_version", Types::kDeviceProperties, kDevice, "device.os.version", &CopyRow::text},
    {"model", Types::kDeviceProperties, kDevice, "device.model.1", &CopyRow::text},
    {"screen_width", Types::kDeviceProperties, kDevice, "scr.width", &CopyRow::text},
    {"screen_height", Types::kDeviceProperties, kDevice, "scr.height", &CopyRow::text},
    {"bundle_version", Types::kDeviceProperties, kDevice, "bnd.ver", &CopyRow::text},
    {"vendor_id", Types::kReportedIdentifers, kIdentifiers, "VendorId", &CopyRow::text},
    {"advertising_id", Types::kReportedIdentifers, kIdentifiers, "iOSAdvertisingId",
     &CopyRow::text},
    {"installation_id", Types::kReportedIdentifers, kIdentifiers, "iOSInstallationId",
     &CopyRow::text},
    {"ad_tracking", Types::kReportedIdentifers, nullptr, "sk.ad.tracking", &CopyRow::boolean},
    {"agent_version", Types::kSessionInitInfo, nullptr, "sk.agent.version", &CopyRow::number},
    {"background_sessions", Types::kSessionInitInfo, nullptr, "sk.background.session.metrics",
     &CopyRow::boolean},
    {"user_id", Types::kUserId, nullptr, "sk.demo.userid", &CopyRow::text},
    {"country", Types::kLocaleInfo, nullptr, "sk.country", &CopyRow::text},
    {"language", Types::kLocaleInfo, nullptr, "sk.language", &CopyRow::text},
    {"time_zone", Types::kTimeZoneInfo, nullptr, "sk.timezone.value", &CopyRow::text},
    {"network", Types::kNetworkStatus, nullptr, "sk.network.status", &CopyRow::number},
    {"orientation", Types::kAppOrientation, nullptr, "sk.app.orientation", &CopyRow::number},
    {"app_state", Types::kAppState, nullptr, "sk.app.current.state", &CopyRow::number},
});

const Value* memberOf(const Dictionary& payload, const EnvironmentColumn& column) {
  if (column.object == nullptr) return payload.find(column.key);
  const Value* object = payload.find(column.object);
  if (object == nullptr || object->dictionary() == nullptr) return nullptr;
  return object->dictionary()->find(column.key);
}

/// As "2026-11-23T12:24:39.123456Z", which the database is sure to take.
bool isStamp(std::string_view text) {
  constexpr std::string_view kForm = "0000-00-00T00:00:00.000000Z";
  return std::equal(text.begin(), text.end(), kForm.begin(), kForm.end(), [](char is, char form) {
    return form == '0' ? is >= '0' && is <= '9' : is == form;
  });
}

}  // namespace

const std::array<std::string, LogTable::count>& LogTable::targets() {
  static const std::array<std::string, count> kTargets = [] {
    std::string columns;
    for (const EnvironmentColumn& column : kEnvironment) {
      columns += std::string(", ") + column.column;
    }
    return std::array<std::string, count>{
        "skelda.environments (log, place" + columns + ")",
        "skelda.session_frames (log, place, environment, session, started, start_uptime, "
        "end_uptime)",
        "skelda.events (log, place, environment, number, name, kind, timed, starting, at, uptime, "
        "parameters, agent_parameters, session)",
        "skelda.records (log, place, type, at, uptime, payload)"};
  }();
  return kTargets;
}

/// Goes through a log once.
class LogRowsReader {
 public:
  explicit LogRowsReader(const StreamedLog& log) : log_(log) {
    rows_.digest = digestOf(log.body);
    fields_.fill("\\N");
  }

  LogRows read() {
    FrameLogReader reader(log_.body);
    FrameRecord frame;
    FrameLogReader::Result result;
    while ((result = reader.next(frame)) == FrameLogReader::Result::frame) {
      const auto payload = parsedPayload(frame);
      if (!payload || (frame.hasCrc && !frame.hasRightCrc())) {
        rows_.fault = fmt::format("offset {}: {}", frame.offset, flawOf(frame));
        break;
      }
      ++rows_.frames;
      add(frame, *payload);
    }
    if (result != FrameLogReader::Result::frame && result != FrameLogReader::Result::end) {
      rows_.fault = fmt::format("offset {}: {}", reader.offset(), reader.problem());
    } else if (rows_.frames == 0 && rows_.fault.empty()) {
      rows_.fault = "offset 0: no frame";
    }
    return finish();
  }

  LogRows finish() {
    giveSession(std::nullopt);
    noteEnvironment();
    if (rows_.fault.empty()) rows_.fault = log_.fault;
    CopyRow head(rows_.head_);
    head.text("\\x" + rows_.digest).text(log_.apiKey);
    isStamp(log_.received) ? head.text(log_.received) : head.null();
    head.number(static_cast<std::int64_t>(log_.body.size()));
    CopyRow tail(rows_.tail_);
    counter_ ? tail.number(*counter_) : tail.null();
    closed_ ? tail.number(*closed_) : tail.null();
    tail.text(std::string_view(device_).substr(0, kLongestDevice));
    rows_.fault.empty() ? tail.null() : tail.text(rows_.fault);
    return std::move(rows_);
  }

  LogRows refused(std::string_view why) {
    rows_.fault = why;
    return finish();
  }

 private:
  void add(const FrameRecord& frame, const Dictionary& payload) {
    switch (frame.type) {
      case Types::kCounter:
        return noteNumber(counter_, payload.find("sk.frame.log.counter"));
      case Types::kFlush:
        return noteNumber(closed_, payload.find("sk.flush.frame.code"));
      case Types::kSessionId:
        return addSession(frame, payload);
      case Types::kEvent:
        return addEvent(frame, payload);
      default:
        if (!noteEnvironment(frame, payload)) addRecord(frame, payload);
    }
  }

  static void noteNumber(std::optional<std::int64_t>& out, const Value* value) {
    if (value != nullptr && value->isNumber()) out = value->integerValue();
  }

  std::string& table(std::size_t number) { return rows_.rows[number]; }

  /// Whether the frame is of the environment. What it leaves out is not there any more.
  bool noteEnvironment(const FrameRecord& frame, const Dictionary& payload) {
    bool isOne = false;
    for (std::size_t i = 0; i < kEnvironment.size(); ++i) {
      if (kEnvironment[i].type != frame.type) continue;
      isOne = true;
      std::string field;
      (CopyRow(field).*kEnvironment[i].append)(memberOf(payload, kEnvironment[i]));
      isChanged_ = isChanged_ || field != fields_[i];
      fields_[i] = std::move(field);
    }
    if (isOne) changedAt_ = static_cast<std::int64_t>(frame.offset);
    if (frame.type == Types::kReportedIdentifers) noteDevice(payload);
    return isOne;
  }

  void noteDevice(const Dictionary& payload) {
    const Value* object = payload.find(kIdentifiers);
    if (object == nullptr || object->dictionary() == nullptr) return;
    for (const char* key : {"iOSInstallationId", "iOSAdvertisingId", "VendorId"}) {
      const Value* value = object->dictionary()->find(key);
      if (value == nullptr || value->text() == nullptr || value->text()->empty()) continue;
      device_ = *value->text();
      return;
    }
  }

  /// Writes the environment that has come about since the last one, before what refers to it.
  void noteEnvironment() {
    if (!isChanged_) return;
    isChanged_ = false;
    environment_ = changedAt_;
    table(LogTable::environments) += fmt::format("{}\t{}\n", changedAt_, fmt::join(fields_, "\t"));
  }

  CopyRow row(std::string& out, const FrameRecord& frame) {
    noteEnvironment();
    CopyRow row(out);
    row.number(static_cast<std::int64_t>(frame.offset));
    environment_ ? row.number(*environment_) : row.null();
    return row;
  }

  void addSession(const FrameRecord& frame, const Dictionary& payload) {
    const Value* id = payload.find("sk.session.id");
    if (id == nullptr || !id->isNumber()) return addRecord(frame, payload);
    giveSession(id->integerValue());
    std::string& out = table(LogTable::sessionFrames);
    const Value* end = payload.find("sk.session.elapsed.end.time");
    CopyRow line = row(out, frame);
    line.number(*session_).time(*session_);
    line.number(payload.find("sk.session.elapsed.start.time"));
    end != nullptr && end->integerValue() != 0 ? line.number(end) : line.null();
    out += '\n';
  }

  void addEvent(const FrameRecord& frame, const Dictionary& payload) {
    ++rows_.events;
    std::string& out = session_ ? table(LogTable::events) : withoutSession_;
    CopyRow line = row(out, frame);
    line.number(payload.find("sk.event.id"));
    const auto name = decodedTextOf(payload.find("sk.event.name"));
    name ? line.text(*name) : line.text(payload.find("sk.event.name"));
    line.text(payload.find("sk.event.type")).boolean(payload.find("sk.event.timed"));
    line.boolean(payload.find("sk.timed.event.starting"));
    const Value* at = payload.find("sk.event.timestamp");
    line.time(at != nullptr && at->isNumber() ? at->integerValue() : frame.epochTimeStamp);
    line.number(payload.find("sk.event.uptime"));
    const Dictionary decoded = decodedPayload(frame, payload);
    line.json(decoded.find("sk.event.user.parameters"));
    line.json(decoded.find("sk.event.skelda.parameters"));
    if (session_) line.number(*session_);
    out += '\n';
  }

  void addRecord(const FrameRecord& frame, const Dictionary& payload) {
    std::string& out = table(LogTable::records);
    const Value value(payload);
    CopyRow(out)
        .number(static_cast<std::int64_t>(frame.offset))
        .number(std::int64_t{frame.type})
        .time(frame.epochTimeStamp)
        .number(frame.relativeTimeStamp)
        .json(&value);
    out += '\n';
  }

  /// What stands before the first frame of a session in a log is of that session: a log that is cut
  /// in the middle of one tells of it only behind the event at which it was cut. Later ones stay in
  /// the session that was told of last, the event among them that finds its session complete.
  void giveSession(std::optional<std::int64_t> session) {
    const std::string field = session ? fmt::format("\t{}\n", *session) : "\t\\N\n";
    for (std::size_t at = 0; at < withoutSession_.size();) {
      const std::size_t end = withoutSession_.find('\n', at);
      table(LogTable::events).append(withoutSession_, at, end - at).append(field);
      at = end + 1;
    }
    withoutSession_.clear();
    session_ = session;
  }

  const StreamedLog& log_;
  LogRows rows_;
  std::array<std::string, kEnvironment.size()> fields_;  // of skelda.environments
  bool isChanged_ = false;
  std::int64_t changedAt_ = 0;
  std::optional<std::int64_t> environment_;  // the place of the last that was written
  std::optional<std::int64_t> session_;
  std::string withoutSession_;  // lines of events that lack their last field
  std::optional<std::int64_t> counter_;
  std::optional<std::int64_t> closed_;
  std::string device_;
};

LogRows LogRows::of(const StreamedLog& log) {
  return LogRowsReader(log).read();
}

LogRows LogRows::refused(const StreamedLog& log, std::string_view why) {
  return LogRowsReader(log).refused(why);
}

std::string LogRows::line() const {
  return fmt::format("{}\t{}\t{}\t{}\n", head_, frames, events, tail_);
}

}  // namespace skelda::tools
