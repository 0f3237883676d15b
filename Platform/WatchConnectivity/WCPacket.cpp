#include "Platform/WatchConnectivity/WCPacket.h"

#include <array>
#include <utility>

#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"

namespace skelda::platform {
namespace {

constexpr std::size_t kLengthSize = 4;
// What a user info may nest, and a little more than one packet may weigh.
constexpr JSONLimits kLimits{.maximumDepth = 32, .maximumBytes = WCPacketFraming::kMaximumLength};

constexpr std::string_view name(WCPacket::Kind kind) {
  switch (kind) {
    case WCPacket::Kind::userInfo:
      return "userInfo";
    case WCPacket::Kind::received:
      return "received";
    case WCPacket::Kind::message:
      return "message";
  }
  return "";
}

std::optional<WCPacket::Kind> kindNamed(const Value* value) {
  if (value == nullptr || value->text() == nullptr) return std::nullopt;
  for (auto kind : {WCPacket::Kind::userInfo, WCPacket::Kind::received, WCPacket::Kind::message})
    if (*value->text() == name(kind)) return kind;
  return std::nullopt;
}

bool isIdentifier(const Value* value) {
  return value != nullptr &&
         (value->kind() == Value::Kind::unsignedInteger ||
          (value->kind() == Value::Kind::integer && value->integerValue() >= 0));
}

}  // namespace

Data WCPacket::encoded() const {
  std::string text;
  JSONWriter writer(text);
  writer.beginObject();
  writer.key("kind");
  writer.text(name(kind));
  if (kind != Kind::message) {
    writer.key("id");
    writer.unsignedInteger(identifier);
  }
  if (kind != Kind::received) {
    writer.key("content");
    writer.value(Value(content));
  }
  writer.endObject();
  return Data(std::move(text));
}

std::optional<WCPacket> WCPacket::decoded(std::string_view bytes) {
  const auto value = readJSON(bytes, nullptr, kLimits);
  const Dictionary* object = value ? value->dictionary() : nullptr;
  if (object == nullptr) return std::nullopt;
  const auto kind = kindNamed(object->find("kind"));
  if (!kind) return std::nullopt;

  WCPacket packet{.kind = *kind, .identifier = 0, .content = {}};
  if (packet.kind != Kind::message) {
    const Value* identifier = object->find("id");
    if (!isIdentifier(identifier)) return std::nullopt;
    packet.identifier = identifier->unsignedValue();
  }
  if (packet.kind != Kind::received) {
    const Value* content = object->find("content");
    if (content == nullptr || content->dictionary() == nullptr) return std::nullopt;
    packet.content = *content->dictionary();
  }
  return packet;
}

std::optional<Data> WCPacketFraming::framed(const Data& packet) {
  if (packet.empty() || packet.length() > kMaximumLength) return std::nullopt;
  std::array<char, kLengthSize> length;
  for (std::size_t i = 0; i < kLengthSize; ++i)
    length[i] = static_cast<char>((packet.length() >> (8 * i)) & 0xFF);
  Data frame;
  frame.reserve(kLengthSize + packet.length());
  frame.append(length.data(), length.size());
  frame.append(packet.view());
  return frame;
}

std::optional<Data> WCPacketFraming::next() {
  if (broken_ || buffer_.length() - start_ < kLengthSize) return std::nullopt;
  std::size_t length = 0;
  for (std::size_t i = 0; i < kLengthSize; ++i)
    length |= std::size_t{buffer_.bytes()[start_ + i]} << (8 * i);
  if (length == 0 || length > kMaximumLength) {
    broken_ = true;
    return std::nullopt;
  }
  if (buffer_.length() - start_ - kLengthSize < length) return std::nullopt;
  Data packet(buffer_.bytes() + start_ + kLengthSize, length);
  start_ += kLengthSize + length;
  // Move the rest to the front once what was taken outweighs it: linear in what passes through.
  // Into memory of its own size: what a long packet took is given back.
  if (start_ >= buffer_.length() - start_) {
    Data rest(buffer_.bytes() + start_, buffer_.length() - start_);
    std::swap(buffer_, rest);  // assigned, a short rest would stay in the long one's memory
    start_ = 0;
  }
  return packet;
}

}  // namespace skelda::platform
