#include "Platform/WatchConnectivity/WCPacket.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include "Platform/Platform.h"

using platform::Data;
using platform::WCPacket;
using platform::WCPacketFraming;

TEST(WCPacket, WhatIsNoPacketIsRefused) {
  for (const char* text :
       {"", "{}", "[]", "null", R"({"kind":"else","id":1})", R"({"kind":7})",
        R"({"kind":"userInfo","content":{}})", R"({"kind":"userInfo","id":-1,"content":{}})",
        R"({"kind":"userInfo","id":1})", R"({"kind":"userInfo","id":1,"content":[]})",
        R"({"kind":"received"})", R"({"kind":"message","content":"text"})",
        R"({"kind":"message","content":{}} tail)", "\xff\xfe"})
    EXPECT_FALSE(WCPacket::decoded(text)) << text;
  EXPECT_TRUE(WCPacket::decoded(R"({"kind":"received","id":0})"));
  const std::string deep(100, '[');
  EXPECT_FALSE(WCPacket::decoded(R"({"kind":"message","content":{"a":)" + deep));
}

TEST(WCPacketFraming, PacketsComeOffTheStreamWhereverItIsCut) {
  std::string stream;
  for (const char* text : {"one", "x", "three is longer"})
    stream += WCPacketFraming::framed(Data(std::string(text)))->string();
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    WCPacketFraming framing;
    std::string taken;
    const auto take = [&] {
      while (auto packet = framing.next()) taken += packet->string() + "|";
    };
    framing.append(stream.data(), cut);
    take();
    framing.append(stream.data() + cut, stream.size() - cut);
    take();
    EXPECT_EQ(taken, "one|x|three is longer|") << "cut at " << cut;
    EXPECT_FALSE(framing.isBroken());
  }
}

TEST(WCPacketFraming, TheMemoryOfALongPacketIsGivenBackWithIt) {
  const auto framed = WCPacketFraming::framed(Data(std::string(300 << 10, 'x')));
  WCPacketFraming framing;
  const auto before = mallinfo2().uordblks + mallinfo2().hblkhd;
  framing.append(framed->bytes(), framed->length());
  framing.append("\x05", 1);
  EXPECT_EQ(framing.next()->length(), 300U << 10);
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + (100 << 10));
}

TEST(WCPacketFraming, ALengthThatCannotBeBreaksTheStreamForGood) {
  // 0, one more than the maximum, 1 GiB, and all bits.
  for (const auto& length : {std::string(4, '\0'), std::string("\x01\x00\x10\x00", 4),
                             std::string("\x00\x00\x00\x40", 4), std::string(4, '\xff')}) {
    WCPacketFraming framing;
    framing.append(length.data(), length.size());
    EXPECT_FALSE(framing.next());
    EXPECT_TRUE(framing.isBroken());
    const auto whole = WCPacketFraming::framed(Data(std::string("late")));
    framing.append(whole->bytes(), whole->length());
    EXPECT_FALSE(framing.next());
  }
  EXPECT_FALSE(WCPacketFraming::framed(Data()));
  EXPECT_FALSE(
      WCPacketFraming::framed(Data(std::string(WCPacketFraming::kMaximumLength + 1, 'x'))));
}
