#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"

namespace skelda::testing {
namespace {

class SkeldaDataSenderIndexTest : public SenderTest {
 protected:
  using Index = std::shared_ptr<SkeldaDataSenderIndex>;
  static Index load() {
    return SkeldaDataSenderIndex::instantiatedIndexWithIndexFile(
        std::string(kSkeldaSenderIndexFileName));
  }
  static SkeldaDataSenderIndex::BlockRef add(const Index& index, const std::string& text,
                                             const std::string& key = "Data_1_261") {
    auto block = SkeldaDataSenderBlockInfo::blockWithData(bytes(text), key);
    EXPECT_TRUE(index->addBlockInfo(block, key));
    return block;
  }
  static std::vector<std::string> texts(const Index& index, const std::string& key = "Data_1_261") {
    std::vector<std::string> found;
    for (const auto& block : index->notSentBlocksForDataKey(key)) {
      found.push_back(block->data().value_or(bytes("(gone)")).string());
    }
    return found;
  }
};

TEST_F(SkeldaDataSenderIndexTest, BlocksComeBackInOrderAfterARestart) {
  {
    const auto index = load();
    for (const char* text : {"one", "two", "three"}) add(index, text);
    index->setSentReportSuccessfully(true);
    const auto second = index->notSentBlocksForDataKey("Data_1_261")[1];
    second->setGroupIdentifier("group");
    index->removeBlockInfoWithIdentifier("group", "Data_1_261");
    EXPECT_TRUE(index->saveState());
  }
  const auto index = load();
  EXPECT_EQ(texts(index), (std::vector<std::string>{"one", "three"}));
  EXPECT_EQ(blockFiles().size(), 2u);
  EXPECT_TRUE(index->sentReportSuccessfully());
  const Data written =
      bytes(readFile(SkeldaAgentFiles::inStorageFolder(std::string(kSkeldaSenderIndexFileName))));
  EXPECT_EQ(archivedData(unarchivedObject(written)), written)
      << "put together as the archiver would";
  const auto first = index->notSentBlocksForDataKey("Data_1_261").front();
  EXPECT_EQ(first->dataSize(), 3u);
  EXPECT_TRUE(first->groupIdentifier().empty());
  EXPECT_LT(Date::now() - first->creationDate(), 5min);

  index->setupForCurrentDataKey("Data_2_261");
  EXPECT_TRUE(index->saveState());
  EXPECT_TRUE(texts(load()).empty());
  EXPECT_TRUE(blockFiles().empty()) << "another key's bytes are gone";
}

TEST_F(SkeldaDataSenderIndexTest, WhatIsNoIndexIsAnEmptyOneAndNamesNoForeignFile) {
  const std::string stranger = home_.storageFolder() + "/../stranger";
  writeFile(stranger, "not ours");
  const auto entry = [](const std::string& identifier) {
    return R"({"identifier":")" + identifier + R"(","dataSize":8,"creationDate":{"$date":1}})";
  };
  const auto archive = [](const std::string& root) {
    return R"({"archive":"skelda","version":1,"class":"SkeldaDataSenderIndex","root":)" + root +
           "}";
  };
  const std::string uuid = "01234567-89AB-CDEF-0123-456789ABCDEF";
  const std::pair<std::string, std::size_t> cases[] = {
      {"", 0},
      {"garbage", 0},
      {archive("[]"), 0},
      {archive(R"({"index":7})"), 0},
      {archive(R"({"index":{"k":{}}})"), 0},
      {archive(R"({"index":{"k":[1,null,{}]}})"), 0},
      {archive(R"({"index":{"k":[)" + entry("../stranger") + "]}}"), 0},
      {archive(R"({"index":{"k":[)" + entry("") + "]}}"), 0},
      {archive(R"({"index":{"k":[)" + entry(uuid) + "," + entry(uuid) + "]}}"), 1},
  };
  for (const auto& [text, blocks] : cases) {
    writeFile(indexFile(), text);
    writeFile(home_.storageFolder() + "/" + uuid, "8 bytes!");
    const auto index = load();
    EXPECT_TRUE(index->isReadable()) << text;
    EXPECT_EQ(index->notSentBlocksForDataKey("k").size(), blocks) << text;
    index->setupForCurrentDataKey("other");
    EXPECT_TRUE(index->saveState());
  }
  EXPECT_EQ(readFile(stranger), "not ours");

  std::filesystem::remove(indexFile());
  std::filesystem::create_directory(indexFile());
  EXPECT_TRUE(load()->saveState()) << "not even a folder is in the way";
}

TEST_F(SkeldaDataSenderIndexTest, AnIndexThatCannotBeReadJustNowIsLeftAsItIs) {
  add(load(), "stored");
  const std::string before = readFile(indexFile());
  Index index;
  {
    const FaultyFileCalls plan;
    plan->failAll("open", EMFILE);
    index = load();
    EXPECT_FALSE(index->isReadable());
    EXPECT_FALSE(index->saveState());
    plan->clear();
    plan->failAll("read", EIO);
    const auto block = SkeldaDataSenderBlockInfo::blockWithData(bytes("new"), "Data_1_261");
    EXPECT_FALSE(index->addBlockInfo(block, "Data_1_261"));
    block->deletePersistentData();
  }
  EXPECT_EQ(readFile(indexFile()), before);
  EXPECT_EQ(blockFiles().size(), 1u) << "nothing is swept";
  EXPECT_EQ(texts(index), std::vector<std::string>{"stored"}) << "and it is tried again";
}

TEST_F(SkeldaDataSenderIndexTest, ABlockIsInTheIndexOnDiskOrNotAtAll) {
  const auto index = load();
  add(index, "kept");
  // Whichever system call fails: afterwards either both are there or neither is.
  for (std::size_t call = 1; call < 30; ++call) {
    bool added = false;
    {
      const FaultyFileCalls plan;
      plan->failCall(call, {ENOSPC});
      const auto block = SkeldaDataSenderBlockInfo::blockWithData(bytes("new"), "Data_1_261");
      added = block != nullptr && index->addBlockInfo(block, "Data_1_261");
      if (block != nullptr && !added) block->deletePersistentData();
    }
    const auto expected =
        added ? std::vector<std::string>{"kept", "new"} : std::vector<std::string>{"kept"};
    EXPECT_EQ(texts(index), expected) << "call " << call;
    if (added) {
      EXPECT_EQ(texts(load()), expected) << "call " << call;
      index->removeBlockInfoWithIdentifier(
          index->notSentBlocksForDataKey("Data_1_261").back()->identifier(), "Data_1_261");
      EXPECT_TRUE(drain(index));
    }
  }
}

TEST_F(SkeldaDataSenderIndexTest, BlockFilesWithoutAnEntryAreSweptOnceTheIndexIsRead) {
  add(load(), "named");
  SkeldaDataSenderBlockInfo::blockWithData(bytes("left by a kill"), "Data_1_261");
  writeFile(home_.storageFolder() + "/other.file", "not a block");
  EXPECT_EQ(blockFiles().size(), 2u);
  EXPECT_EQ(texts(load()), std::vector<std::string>{"named"});
  EXPECT_EQ(blockFiles().size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(home_.storageFolder() + "/other.file"));
  EXPECT_EQ(log_.count("delete orphaned data block"), 1u);
}

TEST_F(SkeldaDataSenderIndexTest,
       AnEntryWithoutAFileIsForgottenAndNamedWhereNobodyCountedItAsGone) {
  auto& page = SkeldaAccounting::page();
  auto& damaged = page.blocksRemoved[static_cast<std::size_t>(SkeldaBlockRemoval::damaged)];
  for (const bool counted : {false, true}) {
    home_.empty();
    const auto gone = add(load(), "gone");
    add(load(), "there");
    gone->deletePersistentData();
    if (counted) SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::overLimit);
    const std::uint64_t before = damaged;
    EXPECT_EQ(texts(load()), std::vector<std::string>{"there"});
    EXPECT_EQ(damaged, before + (counted ? 0 : 1));
  }
}

TEST_F(SkeldaDataSenderIndexTest, WhicheverByteOfTheIndexIsDamagedEveryBlockIsStillThere) {
  {
    const auto index = load();
    for (const char* text : {"one", "two", "three"}) add(index, text);
  }
  const std::string whole = readFile(indexFile());
  ASSERT_GT(whole.size(), 400u);
  for (std::size_t at = 0; at <= whole.size(); ++at) {
    std::string damaged = whole.substr(0, at == whole.size() ? at / 2 : at);
    if (at < whole.size()) damaged += static_cast<char>(whole[at] ^ 1) + whole.substr(at + 1);
    writeFile(indexFile(), damaged);
    const auto index = load();
    index->setupForCurrentDataKey("Data_1_261");
    auto found = texts(index);
    std::sort(found.begin(), found.end());
    ASSERT_EQ(found, (std::vector<std::string>{"one", "three", "two"})) << "byte " << at;
    ASSERT_EQ(blockFiles().size(), 3u) << "byte " << at;
  }
}

TEST_F(SkeldaDataSenderIndexTest, WithoutAnIndexWholeBlocksOfTheCurrentKeyAreTakenUpOldestFirst) {
  const struct {
    int attributes;  // what asking for them comes to
    bool readable;
    std::vector<std::string> current;
    std::size_t files;
  } cases[] = {{0, true, {"old", "young"}, 2},
               // Nobody can say whose they are, so none is thrown away.
               {ENOTSUP, true, {"old", "another key's", "young"}, 3},
               {EIO, false, {}, 4}};
  for (const auto& one : cases) {
    home_.empty();
    const FaultyFileCalls plan;
    if (one.attributes == ENOTSUP) plan->failAll("setAttribute", ENOTSUP);
    const auto leave = [&](const char* text, const char* key, int minutesAgo) {
      const auto block = SkeldaDataSenderBlockInfo::blockWithData(bytes(text), key);
      std::filesystem::last_write_time(
          home_.storageFolder() + "/" + block->identifier(),
          std::filesystem::file_time_type::clock::now() - std::chrono::minutes(minutesAgo));
    };
    leave("young", "current", 1);
    leave("old", "current", 3);
    leave("another key's", "other", 2);
    const std::string torn = "01234567-89AB-CDEF-0123-456789ABCDEF";
    if (one.attributes != ENOTSUP) writeFile(home_.storageFolder() + "/" + torn, "no attribute");
    if (one.attributes != 0) plan->failAll("attribute", one.attributes);
    const auto index = load();
    EXPECT_EQ(index->isReadable(), one.readable) << one.attributes;
    if (one.readable) index->setupForCurrentDataKey("current");
    EXPECT_EQ(texts(index, "current"), one.current) << one.attributes;
    EXPECT_EQ(drain(index), one.readable);
    EXPECT_EQ(blockFiles().size(), one.files) << one.attributes;
    plan->clear();
  }
}

TEST_F(SkeldaDataSenderIndexTest, RemovalsWaitForTheNextAdditionOrTwoSeconds) {
  const auto index = load();
  std::vector<SkeldaDataSenderIndex::BlockRef> blocks;
  for (int i = 0; i < 20; ++i) blocks.push_back(add(index, std::to_string(i)));
  const FaultyFileCalls plan;
  const auto named = [&] {
    const std::string file = readFile(indexFile());
    return std::count_if(blocks.begin(), blocks.end(), [&](const auto& block) {
      return file.find(block->identifier()) != std::string::npos;
    });
  };
  const auto removeAt = [&](std::size_t i) {
    const std::size_t before = blockFiles().size();
    index->removeBlockInfoWithIdentifier(blocks[i]->identifier(), "Data_1_261");
    EXPECT_TRUE(becomes([&] { return blockFiles().size() < before; }));
  };
  for (std::size_t i = 0; i < 10; ++i) removeAt(i);
  EXPECT_EQ(plan->calls("rename"), 0u) << "the files are gone, the index may say so later";
  EXPECT_EQ(named(), 20);
  add(index, "added");
  EXPECT_EQ(plan->calls("rename"), 2u) << "the block and the index";
  EXPECT_EQ(named(), 10);
  removeAt(10);
  index->setSentReportSuccessfully(true);
  EXPECT_TRUE(becomes([&] { return named() == 9; }));
  EXPECT_EQ(plan->calls("rename"), 3u);
  EXPECT_TRUE(load()->sentReportSuccessfully());
  EXPECT_TRUE(drain(index));
}

}  // namespace
}  // namespace skelda::testing
