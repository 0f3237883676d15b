#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaRecordField.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEntityBase.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"

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

  /// The text that is logged for a record that is not valid, without the method's name.
  virtual std::string_view invalidModelText() const noexcept { return "invalid data object"; }
  /// Takes over what the list of fields cannot: called after the members have been read. False
  /// where the content makes no record of this class.
  virtual bool didRead(const platform::Dictionary&) { return true; }
  /// Called when keys are missing, before that is logged; answers the text of the log line.
  virtual std::string_view invalidDictText() const noexcept { return "invalid json object"; }

  bool writeJSON(platform::JSONWriter& writer) const override;
  /// Fills the record from a payload; false, after a log line, where the payload makes no record.
  bool readJSON(const platform::Data& json);
  /// Whether every required key is there.
  static bool holdsRequired(std::span<const SkeldaRecordField> fields,
                            const platform::Dictionary& dictionary);

 private:
  bool validOrReported() const;
};

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
    auto record = std::make_shared<Self>();
    return record->readJSON(json) ? record : nullptr;
  }
  static bool isValidDict(const platform::Dictionary& dictionary) {
    return holdsRequired(Self::recordFields(), dictionary);
  }

  /// A new object of the class with the stamps of this one. Only a class with a copyFieldsTo() of
  /// its own hands on its fields.
  std::shared_ptr<Self> copy() const {
    auto copied = std::make_shared<Self>();
    copied->copyStamps(*this);
    static_cast<const Self*>(this)->copyFieldsTo(*copied);
    return copied;
  }

 protected:
  SkeldaStreamRecordOf() : SkeldaStreamRecord(Self::kClassName) {}
  void copyFieldsTo(Self&) const {}
};
