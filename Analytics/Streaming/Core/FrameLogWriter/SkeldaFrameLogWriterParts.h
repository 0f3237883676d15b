#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class ISkeldaStreamFileHandle;
class ISkeldaStreamFileManager;
class ISkeldaStreamFrameDeserializer;
class ISkeldaStreamMessageSerializer;

/// What a writer is made of: the folders and names of its logs, its way to the disk and to bytes,
/// the frame types that end a log and those that are never written.
struct SkeldaFrameLogWriterParts {
  std::string currentFolder;
  std::string currentName;
  std::string commitedFolder;
  std::string commitedName;
  std::shared_ptr<ISkeldaStreamFileManager> fileManager;
  std::shared_ptr<ISkeldaStreamFileHandle> fileHandle;
  std::shared_ptr<ISkeldaStreamMessageSerializer> serializer;
  std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer;
  std::vector<std::int32_t> frameTypesForRoll;
  std::vector<std::int32_t> frameTypesToDrop;
};
