#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"

#include <array>
#include <type_traits>
#include <utility>

#include "Platform/Base/Counted.h"

namespace {

using Tracked = SkeldaStreamSessionTrackedProperties;
using platform::Dictionary;
using platform::Value;

constexpr std::string_view kObjectKey = "sk.session.property";
constexpr std::string_view kStartSuffix = ".start";
constexpr std::string_view kEndSuffix = ".end";

/// One figure of a snapshot: the name without its suffix, and how to read and set it.
struct TrackedField {
  std::string_view name;
  Value (*get)(const Tracked&);
  void (*set)(Tracked&, const Value&);
};

template <auto Member>
constexpr TrackedField tracked(std::string_view name) {
  using T = std::remove_cvref_t<decltype(std::declval<Tracked>().*Member)>;
  return {name, [](const Tracked& snapshot) { return Value(snapshot.*Member); },
          [](Tracked& snapshot, const Value& value) {
            if constexpr (std::is_floating_point_v<T>) {
              snapshot.*Member = static_cast<T>(value.doubleValue());
            } else {
              snapshot.*Member = static_cast<T>(value.unsignedValue());
            }
          }};
}

constexpr std::array kTrackedFields{
    tracked<&Tracked::freeMemory>("memory.available"),
    tracked<&Tracked::activeMemory>("memory.used.active"),
    tracked<&Tracked::wiredMemory>("memory.used.wired"),
    tracked<&Tracked::inactiveMemory>("memory.used.inactive"),
    tracked<&Tracked::cpuUsage>("cpu.load"),
    tracked<&Tracked::batteryLevel>("battery.remaining"),
    tracked<&Tracked::batteryCharging>("battery.charging"),
};

/// Every property travels as text inside an object of its own, under this key.
constexpr std::string_view kPropertyKey = "value";

/// The text of a property; null where there is none.
const Value* propertyText(const Dictionary& object, std::string_view name) {
  const Value* property = object.find(name);
  if (property == nullptr || property->dictionary() == nullptr) return nullptr;
  const Value* text = property->dictionary()->find(kPropertyKey);
  return text != nullptr && text->text() != nullptr ? text : nullptr;
}

/// Nothing where the object holds no figure of that snapshot.
std::optional<Tracked> readSnapshot(const Dictionary& object, std::string_view suffix) {
  std::optional<Tracked> snapshot;
  for (const TrackedField& field : kTrackedFields) {
    const Value* text = propertyText(object, std::string(field.name).append(suffix));
    if (text == nullptr) continue;
    if (!snapshot) snapshot.emplace();
    field.set(*snapshot, *text);
  }
  return snapshot;
}

}  // namespace

std::shared_ptr<SkeldaStreamSessionDeviceProperties>
SkeldaStreamSessionDeviceProperties::sessionDeviceProperties() {
  return platform::makeCounted<SkeldaStreamSessionDeviceProperties>();
}

std::span<const SkeldaRecordField> SkeldaStreamSessionDeviceProperties::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamSessionDeviceProperties::sessionProperty>(kObjectKey)
          .required(),
  };
  return kFields;
}

/// The totals; the figures of the two snapshots stand behind them.
std::span<const SkeldaRecordField> SkeldaStreamSessionDeviceProperties::totalFields() noexcept {
  using Self = SkeldaStreamSessionDeviceProperties;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::totalDiskSize_>("disk.size.total"),
      SkeldaRecordField::of<&Self::availableDiskSize_>("disk.size.available"),
      SkeldaRecordField::of<&Self::lastBootTime_>("boot.time"),
      SkeldaRecordField::of<&Self::totalMemory_>("memory.total"),
      SkeldaRecordField::of<&Self::usedDiskSize_>("disk.size.used"),
      SkeldaRecordField::of<&Self::carrierName_>("carrier.name"),
      SkeldaRecordField::of<&Self::carrierMNC_>("carrier.mnc"),
      SkeldaRecordField::of<&Self::carrierMCC_>("carrier.mcc"),
  };
  return kFields;
}

template <class Take>
void SkeldaStreamSessionDeviceProperties::forEachProperty(Take take) const {
  for (const SkeldaRecordField& field : totalFields()) {
    const Value value = valueOf(field);
    if (!value.isNull()) take(field.key, value);
  }
  std::string name;
  const auto takeSnapshot = [&](const Tracked& snapshot, std::string_view suffix) {
    for (const TrackedField& field : kTrackedFields) {
      name.assign(field.name).append(suffix);
      take(std::string_view(name), field.get(snapshot));
    }
  };
  if (startProperties_) takeSnapshot(*startProperties_, kStartSuffix);
  if (endProperties_) takeSnapshot(*endProperties_, kEndSuffix);
}

Value SkeldaStreamSessionDeviceProperties::sessionProperty() const {
  Dictionary object;
  object.reserve(totalFields().size() + 2 * kTrackedFields.size());
  forEachProperty([&](std::string_view name, const Value& value) {
    object.append(std::string(name), Dictionary{{std::string(kPropertyKey), value.description()}});
  });
  return object;
}

/// The same, straight to the text.
bool SkeldaStreamSessionDeviceProperties::writeJSON(platform::JSONWriter& writer) const {
  if (!validOrReported()) return false;
  writer.beginObject();
  writer.key(kObjectKey);
  writer.beginObject();
  forEachProperty([&](std::string_view name, const Value& value) {
    writer.key(name);
    writer.beginObject();
    writer.key(kPropertyKey);
    writer.text(value.description());
    writer.endObject();
  });
  writer.endObject();
  writer.endObject();
  return true;
}

bool SkeldaStreamSessionDeviceProperties::didRead(const Dictionary& dictionary) {
  const Dictionary* object = dictionary.find(kObjectKey)->dictionary();
  if (object == nullptr) return false;
  for (const SkeldaRecordField& field : totalFields()) {
    if (const Value* text = propertyText(*object, field.key)) setMember(field, *text);
  }
  startProperties_ = readSnapshot(*object, kStartSuffix);
  endProperties_ = readSnapshot(*object, kEndSuffix);
  return true;
}
