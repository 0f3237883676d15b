#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"

namespace {

const std::string kKey = "Data_1_261";

struct SkeldaDataSenderIndexTest : SenderTest {
  using Index = std::shared_ptr<SkeldaDataSenderIndex>;
  static Index load() {
    return SkeldaDataSenderIndex::instantiatedIndexWithIndexFile(
        std::string(kSkeldaSenderIndexFileName));
  }
  static SkeldaDataSenderIndex::BlockRef store(const std::string& text) {
    return SkeldaDataSenderBlockInfo::blockWithData(bytes(text), kKey);
  }
  static SkeldaDataSenderIndex::BlockRef add(const Index& index, const std::string& text) {
    auto block = store(text);
    EXPECT_TRUE(index->addBlockInfo(block, kKey));
    return block;
  }
  static Texts texts(const Index& index, const std::string& key = kKey) {
    Texts found;
    for (const auto& block : index->notSentBlocksForDataKey(key))
      found.push_back(block->data().value_or(bytes("(gone)")).string());
    return found;
  }
};

TEST_F(SkeldaDataSenderIndexTest, BlocksComeBackInOrderAfterARestart) {
  {
    const auto index = load();
    for (const char* text : {"one", "two", "three"}) add(index, text);
    index->setSentReportSuccessfully(true);
    const auto second = index->notSentBlocksForDataKey(kKey)[1];
    second->setGroupIdentifier("group");
    index->removeBlockInfoWithIdentifier("group", kKey);
    EXPECT_TRUE(index->saveState());
  }
  const auto index = load();
  EXPECT_EQ(texts(index), (Texts{"one", "three"}));
  EXPECT_EQ(blockFiles().size(), 2u);
  EXPECT_TRUE(index->sentReportSuccessfully());
  const Data written = bytes(readFile(indexFile()));
  EXPECT_EQ(archivedData(unarchivedObject(written)), written) << "as the archiver writes it";
  const auto first = index->notSentBlocksForDataKey(kKey).front();
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
  const auto entry = [](const std::string& of) {
    return R"({"identifier":")" + of + R"(","dataSize":8,"creationDate":{"$date":1}})";
  };
  const auto archive = [](const std::string& of) {
    return R"({"archive":"skelda","version":1,"class":"SkeldaDataSenderIndex","root":)" + of + "}";
  };
  const std::string uuid = "01234567-89AB-CDEF-0123-456789ABCDEF";
  const auto ofKey = [&](const std::string& blocks) {
    return archive(R"({"index":{"k":)" + blocks + "}}");
  };
  const std::string twice = ofKey("[" + entry(uuid) + "," + entry(uuid) + "]");
  for (const auto& text :
       {std::string(), std::string("garbage"), archive("[]"), archive(R"({"index":7})"),
        ofKey("{}"), ofKey("[1,null,{}]"), ofKey("[" + entry("../stranger") + "]"),
        ofKey("[" + entry("") + "]"), twice}) {
    writeFile(indexFile(), text);
    writeFile(pathOf(uuid), "8 bytes!");
    const auto index = load();
    EXPECT_TRUE(index->isReadable()) << text;
    EXPECT_EQ(index->notSentBlocksForDataKey("k").size(), text == twice ? 1u : 0u) << text;
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
    const FaultyFileCalls plan("open", Fault::always(EMFILE));
    index = load();
    EXPECT_FALSE(index->isReadable());
    EXPECT_FALSE(index->saveState());
    plan->clear();
    plan->failAll("read", EIO);
    const auto block = store("new");
    EXPECT_FALSE(index->addBlockInfo(block, kKey));
    block->deletePersistentData();
  }
  EXPECT_EQ(readFile(indexFile()), before);
  EXPECT_EQ(blockFiles().size(), 1u) << "nothing is swept";
  EXPECT_EQ(texts(index), Texts{"stored"}) << "and it is tried again";
}

TEST_F(SkeldaDataSenderIndexTest, ABlockIsInTheIndexOnDiskOrNotAtAll) {
  const auto index = load();
  add(index, "kept");
  for (std::size_t call = 1; call < 30; ++call) {
    const FaultyFileCalls plan;
    plan->failCall(call, {ENOSPC});
    const auto block = store("new");
    const bool added = block != nullptr && index->addBlockInfo(block, kKey);
    if (block != nullptr && !added) block->deletePersistentData();
    plan->clear();
    const auto expected = added ? Texts{"kept", "new"} : Texts{"kept"};
    EXPECT_EQ(texts(index), expected) << "call " << call;
    if (!added) continue;
    EXPECT_EQ(texts(load()), expected) << "call " << call;
    const auto last = index->notSentBlocksForDataKey(kKey).back();
    index->removeBlockInfoWithIdentifier(last->identifier(), kKey);
    EXPECT_TRUE(drain(index));
  }
}

TEST_F(SkeldaDataSenderIndexTest, BlockFilesWithoutAnEntryAreSweptOnceTheIndexIsRead) {
  add(load(), "named");
  store("left by a kill");
  writeFile(pathOf("other.file"), "not a block");
  EXPECT_EQ(blockFiles().size(), 2u);
  EXPECT_EQ(texts(load()), Texts{"named"});
  EXPECT_EQ(blockFiles().size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(pathOf("other.file")));
  EXPECT_EQ(log_.count("delete orphaned data block"), 1u);
}

TEST_F(SkeldaDataSenderIndexTest, AnEntryWithoutAFileIsForgottenAndNamedWhereNobodyCountedIt) {
  auto& damaged = at(SkeldaAccounting::page().blocksRemoved, SkeldaBlockRemoval::damaged);
  for (const bool counted : {false, true}) {
    home_.empty();
    const auto gone = add(load(), "gone");
    add(load(), "there");
    gone->deletePersistentData();
    if (counted) SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::overLimit);
    const std::uint64_t before = damaged;
    EXPECT_EQ(texts(load()), Texts{"there"});
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
    index->setupForCurrentDataKey(kKey);
    auto found = texts(index);
    std::ranges::sort(found);
    ASSERT_EQ(found, (Texts{"one", "three", "two"})) << "byte " << at;
    ASSERT_EQ(blockFiles().size(), 3u) << "byte " << at;
  }
}

TEST_F(SkeldaDataSenderIndexTest, WithoutAnIndexWholeBlocksOfTheCurrentKeyAreTakenUpOldestFirst) {
  // What asking for attributes comes to, whether it is an index then, and what it has and leaves.
  const std::tuple<int, bool, Texts, std::size_t> cases[] = {
      {0, true, {"old", "young"}, 2},
      // Nobody can say whose they are, so none is thrown away.
      {ENOTSUP, true, {"old", "another key's", "young"}, 3},
      {EIO, false, {}, 4}};
  for (const auto& [error, readable, current, files] : cases) {
    home_.empty();
    const FaultyFileCalls plan;
    if (error == ENOTSUP) plan->failAll("setAttribute", ENOTSUP);
    const auto leave = [&](const char* text, const char* key, int minutesAgo) {
      const auto block = SkeldaDataSenderBlockInfo::blockWithData(bytes(text), key);
      const auto now = std::filesystem::file_time_type::clock::now();
      std::filesystem::last_write_time(pathOf(block->identifier()), now - 1min * minutesAgo);
    };
    leave("young", "current", 1);
    leave("old", "current", 3);
    leave("another key's", "other", 2);
    const std::string torn = "01234567-89AB-CDEF-0123-456789ABCDEF";
    if (error != ENOTSUP) writeFile(pathOf(torn), "no attribute");
    if (error != 0) plan->failAll("attribute", error);
    const auto index = load();
    EXPECT_EQ(index->isReadable(), readable) << error;
    if (readable) index->setupForCurrentDataKey("current");
    EXPECT_EQ(texts(index, "current"), current) << error;
    EXPECT_EQ(drain(index), readable);
    EXPECT_EQ(blockFiles().size(), files) << error;
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
    const auto has = [&](auto& block) { return file.find(block->identifier()) != file.npos; };
    return std::ranges::count_if(blocks, has);
  };
  const auto removeAt = [&](std::size_t i) {
    const std::size_t before = blockFiles().size();
    index->removeBlockInfoWithIdentifier(blocks[i]->identifier(), kKey);
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
