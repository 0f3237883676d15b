#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"

#include "Tests/Analytics/Streaming/Transfer/TransferFakes.h"

namespace skelda::testing {
namespace {

class Completions : public ISkeldaFileTransferAgentDelegate {
 public:
  void didCompleteTransfer(const std::string& fileName, platform::ErrorRef withError) override {
    told.push_back(fileName + (withError == nullptr ? " sent" : ": " + withError->domain()));
  }
  void didAbandonTransfer() override { told.push_back("abandoned"); }
  std::vector<std::string> told;
};

class SkeldaLocalTransferAgentTest : public ::testing::Test {
 protected:
  SkeldaLocalTransferAgentTest() { agent_->setDelegate(delegate_); }
  static SkeldaFileStateRef file(const std::string& name) {
    return std::make_shared<SkeldaFileState>(name, "/logs", 1, 0, 0, nullptr);
  }

  std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();
  std::shared_ptr<FakeFolder> folder_ = std::make_shared<FakeFolder>();
  std::shared_ptr<Completions> delegate_ = std::make_shared<Completions>();
  std::shared_ptr<SkeldaLocalTransferAgent> agent_ =
      SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(reader_, folder_);
};

TEST_F(SkeldaLocalTransferAgentTest, TurnsTheReadersOutcomeIntoACompletion) {
  folder_->names = {"a", "b", "c"};
  const auto a = file("a"), b = file("b"), c = file("c");
  for (const auto& one : {a, b, c}) agent_->startTransfer(one);
  EXPECT_EQ(agent_->listTransfers(), (std::vector{a, b, c}));
  EXPECT_EQ(reader_->processed, (std::vector<std::string>{"/logs/a", "/logs/b", "/logs/c"}));
  EXPECT_EQ(a->fileState(), 3u);
  EXPECT_EQ(reader_->delegate.lock(), agent_);

  agent_->processingCompleteForFile("a");
  const auto snapshot = agent_->listTransfers();
  agent_->processingFailedForFile(
      "b", std::make_shared<const platform::Error>(platform::makeErrorDomain("read"), 4));
  agent_->processingFailedForFile("c", nullptr);
  EXPECT_TRUE(agent_->listTransfers().empty());
  EXPECT_EQ(snapshot, (std::vector{b, c})) << "a copy";
  // An empty file has no error to show, and is a failure all the same.
  EXPECT_EQ(delegate_->told, (std::vector<std::string>{"a sent", "b: read", "c: file is empty"}));
}

TEST_F(SkeldaLocalTransferAgentTest, AMissingFileIsAnErrorWithoutACompletion) {
  const auto missing = file("missing");
  agent_->startTransfer(missing);
  EXPECT_EQ(agent_->listTransfers(), std::vector{missing});
  EXPECT_EQ(missing->fileState(), 6u);
  EXPECT_TRUE(reader_->processed.empty());
  EXPECT_EQ(delegate_->told, std::vector<std::string>{"abandoned"});
}

TEST_F(SkeldaLocalTransferAgentTest, FinishesTheFirstOfANameAndForgetsTheCancelled) {
  const auto first = file("same"), second = file("same"), other = file("other");
  for (const auto& one : {first, second, first, other}) agent_->resumeTransfer(one);
  agent_->finishTransferWithFileName("same");
  agent_->finishTransferWithFileName("unknown");
  EXPECT_EQ(agent_->listTransfers(), (std::vector{second, other}));
  agent_->cancelTransfer(other);
  EXPECT_EQ(agent_->listTransfers(), std::vector{second});
}

}  // namespace
}  // namespace skelda::testing
