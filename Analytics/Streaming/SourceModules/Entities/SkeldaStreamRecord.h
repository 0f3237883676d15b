#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaRecordField.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEntityBase.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Platform/Base/Counted.h"

/// An entity whose payload is a list of fields: writes itself, and is filled again from what was
/// written. A record adds code only where it is unlike the others.
class SkeldaStreamRecord : public SkeldaStreamEntityBase {
 public:
  virtual std::span<const SkeldaRecordField> fields() const noexcept = 0;
  /// Whether the record may be written: by default, when no required member is nil.
  virtual bool isValidModel() const;
  std::optional<platform::Dictionary> dictionaryRepresentation() const override;

 protected:
  using SkeldaStreamEntityBase::SkeldaStreamEntityBase;

  /// What is logged of a record that is not valid, behind the method's name.
  virtual std::string invalidModelText() const { return "invalid data object"; }
  /// What is logged of a payload in which keys are missing, behind the method's name. A class with
  /// a text of its own takes such a payload for a fault of the program, and asserts softly.
  virtual std::string_view inconsistentDictText() const noexcept { return {}; }
  /// Takes over what the list of fields cannot: called after the members have been read. False
  /// where the content makes no record of this class.
  virtual bool didRead(const platform::Dictionary&) { return true; }

  /// What a field holds; null where it is nil.
  platform::Value valueOf(const SkeldaRecordField& field) const;
  /// Fills a member. False for a value that the member cannot hold, which then stays as it was.
  bool setMember(const SkeldaRecordField& field, const platform::Value& value);

  bool writeJSON(platform::JSONWriter& writer) const override;
  /// isValidModel(); where not, it is said.
  bool validOrReported() const;
  /// Fills the record from a payload; false, after a log line, where the payload makes no record.
  bool readJSON(const platform::Data& json);
  /// Whether every required key is there.
  static bool holdsRequired(std::span<const SkeldaRecordField> fields,
                            const platform::Dictionary& dictionary);

 private:
  void writeField(const SkeldaRecordField& field, platform::JSONWriter& writer) const;
};

namespace skelda {

/// The frame type of a record class. One that is not in the table of frame types does not compile,
/// but for a class that says kReachesNoLog.
template <class Record>
inline constexpr std::int32_t kFrameTypeOf = [] {
  constexpr auto type = SkeldaStreamFrameTypeUtil::frameTypeForClassName(Record::kClassName);
  static_assert((type == 0) == requires { Record::kReachesNoLog; },
                "a record is in the table of frame types, or says that it reaches no log");
  return type;
}();

}  // namespace skelda

/// What differs from class to class in name only. `Self` has kClassName, a default constructor, and
/// recordFields(), the list.
template <class Self>
class SkeldaStreamRecordOf : public SkeldaStreamRecord {
 public:
  std::string_view className() const noexcept override { return Self::kClassName; }
  std::span<const SkeldaRecordField> fields() const noexcept override {
    return Self::recordFields();
  }

  /// The record that was written as that payload; null where there is none to be made of it.
  static std::shared_ptr<Self> streamEntityFromJSONData(const platform::Data& json) {
    auto record = platform::makeCounted<Self>();
    return record->readJSON(json) ? record : nullptr;
  }
  static bool isValidDict(const platform::Dictionary& dictionary) {
    return holdsRequired(Self::recordFields(), dictionary);
  }

  /// A new object with the stamps and all members of this one. Only for a class that says that it
  /// is copied (kIsCopied): nobody else is sent twice.
  template <class Copied = Self>
  std::shared_ptr<Copied> copy() const requires(Copied::kIsCopied) {
    return platform::makeCounted<Copied>(static_cast<const Copied&>(*this));
  }

 protected:
  SkeldaStreamRecordOf() : SkeldaStreamRecord(skelda::kFrameTypeOf<Self>) {}
};
