#include "Analytics/Streaming/Core/FrameLogWriter/FrameLogRepair.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"
#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/FileHandle.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/JSONReader.h"

namespace {

/// Header and length reach the disk before the payload does where power is lost: then what stands
/// in its place is zeros.
bool isObject(std::string_view payload) {
  const auto value = platform::readJSON(payload, nullptr, {.maximumDepth = 512});
  return value && value->dictionary() != nullptr;
}

}  // namespace

FrameLogRepair::FrameLogRepair(std::string path,
                               std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
                               std::shared_ptr<ISkeldaStreamMessageSerializer> serializer,
                               std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer)
    : path_(std::move(path)),
      fileHandle_(std::move(fileHandle)),
      serializer_(std::move(serializer)),
      deserializer_(std::move(deserializer)) {}

std::optional<FrameLogRepair::ReadableLog> FrameLogRepair::read() {
  platform::ErrorRef error;
  std::optional<platform::Data> data;
  fileHandle_->openForReadingFile(path_, &error);
  if (!error) data = fileHandle_->availableDataWithError(&error);
  fileHandle_->closeFile();
  if (error || !data) return std::nullopt;

  ReadableLog readable;
  readable.lengthOfFile = data->length();
  std::string_view rest = data->view();
  std::optional<End> end;
  while (!end && deserializer_->isAtLeastOneFrameInData(rest)) {
    std::size_t taken = 0;
    const auto frame = deserializer_->streamFrameFromData(rest, &taken, &error);
    end = keepFrame(error ? nullptr : frame, readable);
    rest.remove_prefix(taken);
  }
  const bool all = readable.lengthInFile == readable.lengthOfFile;
  readable.end = end.value_or(all ? End::whole : End::partOfAFrame);
  readable.isAsWritten = all && readable.frames == *data;
  return readable;
}

std::optional<FrameLogRepair::End> FrameLogRepair::keepFrame(const SkeldaStreamFrame::Ref& frame,
                                                             ReadableLog& readable) {
  if (!frame) return End::frameCannotBeWrittenAgain;
  if (!isObject(frame->payloadView())) return End::payloadIsNoObject;
  const std::size_t length = frame->totalLength();
  const auto message = SkeldaStreamMessage::streamMessageFromFrame(std::move(*frame));
  const auto bytes = serializer_->frameFromStreamMessage(*message);
  if (!bytes) return End::frameCannotBeWrittenAgain;
  readable.frames.append(bytes->view());
  readable.lengthInFile += length;
  ++readable.countOfFrames;
  return std::nullopt;
}

bool FrameLogRepair::cut(const ReadableLog& log) {
  if (log.isAsWritten) return true;
  platform::ErrorRef error;
  if (platform::FileManager::defaultManager()->writeData(log.frames, path_, true, &error)) {
    return true;
  }
  SKELDA_LOG(1, "{}: unable to write frame log file at path {}, error = {}",
             "-[SkeldaStreamFrameLogWriter onqueue_validatePendingLogFile]", path_,
             platform::description(error));
  return skelda::guardedResult(false, [&] {
    const auto handle = platform::FileHandle::forWritingAtPath(path_);
    if (!handle) return false;
    handle->truncateFileAtOffset(log.lengthInFile);
    handle->synchronizeFile();
    return true;
  });
}

std::string_view FrameLogRepair::text(End end) noexcept {
  switch (end) {
    case End::whole:
      return "whole";
    case End::partOfAFrame:
      return "ends in a part of a frame";
    case End::payloadIsNoObject:
      return "a payload is no JSON object";
    case End::frameCannotBeWrittenAgain:
      return "a frame cannot be written again";
  }
  return {};
}
