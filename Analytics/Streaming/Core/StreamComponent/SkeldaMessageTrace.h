#pragma once

#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"

/// The text of the message a stage is working on, made when a trace line first asks for it and
/// kept until the stage is done with the message: a description is the dearest part of a trace
/// line, and a stage and its rules write several. One object on the stack of the working thread.
class SkeldaMessageTrace {
 public:
  explicit SkeldaMessageTrace(const ISkeldaStreamMessage::Ref& message) noexcept;
  ~SkeldaMessageTrace();
  SkeldaMessageTrace(const SkeldaMessageTrace&) = delete;
  SkeldaMessageTrace& operator=(const SkeldaMessageTrace&) = delete;

  /// The description of `message`, "(null)" for none; shared when a trace of it is open on this
  /// thread.
  static std::string description(const ISkeldaStreamMessage::Ref& message);

 private:
  const ISkeldaStreamMessage* message_;
  SkeldaMessageTrace* outer_;
  std::optional<std::string> text_;
};
