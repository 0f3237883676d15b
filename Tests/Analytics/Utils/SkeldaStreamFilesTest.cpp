#include <gtest/gtest.h>

#include <functional>

#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using platform::Data;
using platform::ErrorRef;

std::int64_t codeOf(const ErrorRef& error) {
  return error ? error->code() : 0;
}

/// The agent's file manager and handle over calls that fail as told.
class StreamFilesTest : public ::testing::Test {
 protected:
  StreamFilesTest() { writeFile(path_, "0123456789"); }

  TemporaryDirectory directory_;
  const std::string path_ = directory_ / "file";
  const std::string absent_ = directory_ / "absent";
  FaultPlanRef plan_ = std::make_shared<FaultPlan>();
  FaultyFileCalls calls_{plan_};
  SkeldaStreamFileManager manager_;
  SkeldaStreamFileHandle handle_;
  ErrorRef error_;
};

TEST_F(StreamFilesTest, EveryFailureOfThePlatformIsReportedByTheManager) {
  const std::string folder = directory_ / "folder";
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"makeDirectory", [&] { return manager_.createIfNotPresentDirectoryAtPath(folder); }},
      {"renameNoReplace", [&] { return manager_.copyFileFrom(path_, folder); }},
      {"unlink", [&] { return manager_.removeItemAtPath(path_); }},
      {"open", [&] { return manager_.createFileAtPath(folder); }},
      {"entries",
       [&] { return manager_.fileNamesAtPath(directory_.path(), &error_).has_value(); }},
  };
  for (const auto& [kind, operation] : cases) {
    plan_->failKind(kind, 1, {.error = EMFILE});
    EXPECT_FALSE(operation()) << kind;
  }
  EXPECT_EQ(plan_->faults(), std::size(cases));
  EXPECT_EQ(codeOf(error_), EMFILE);
  plan_->failKind("statusAt", 1, {.error = EIO});
  EXPECT_TRUE(manager_.isFilePresentAtPath(absent_)) << "cannot say is not absent";
  EXPECT_FALSE(manager_.isFilePresentAtPath(absent_));
}

TEST_F(StreamFilesTest, NilPathsAreRefused) {
  EXPECT_FALSE(manager_.createFileAtPath(std::nullopt) || manager_.truncateFileAtPath({}) ||
               manager_.removeItemAtPath({}) || manager_.isFilePresentAtPath({}) ||
               manager_.createIfNotPresentDirectoryAtPath({}) || manager_.copyFileFrom({}, path_) ||
               manager_.copyFileFrom(path_, {}));
  EXPECT_EQ(manager_.fileNamesAtPath(std::nullopt, &error_), std::nullopt);
  EXPECT_EQ(codeOf(error_), 12);
  EXPECT_EQ(plan_->calls(), 0u);
  EXPECT_FALSE(handle_.isOpenFile(std::nullopt));
  handle_.openForWritingFile(std::nullopt, &error_);
  EXPECT_EQ(codeOf(error_), 1);
  for (const auto& noURL : {std::string(), std::string("a\0b", 3), std::string("\xff")}) {
    handle_.openForReadingFile(noURL, &error_);
    EXPECT_EQ(codeOf(error_), 2);
  }
}

TEST_F(StreamFilesTest, TheHandleReadsToTheEndAndNoFurther) {
  handle_.openForWritingFile(absent_, &error_);
  EXPECT_EQ(codeOf(error_), 5);
  EXPECT_EQ(handle_.openFilePath(), std::nullopt);
  handle_.openForReadingFile(path_, &error_);
  EXPECT_EQ(handle_.readDataOfLength(4, &error_), Data("0123"));
  EXPECT_EQ(handle_.availableDataWithError(&error_), Data("456789"));
  EXPECT_EQ(handle_.readDataOfLength(4, &error_), Data());
  EXPECT_EQ(error_, nullptr);
  EXPECT_EQ(handle_.readDataOfLength(0, &error_), std::nullopt);
  EXPECT_EQ(codeOf(error_), 1);
  handle_.closeFile();
  EXPECT_FALSE(handle_.isOpenFile(path_));
}

TEST_F(StreamFilesTest, EveryFailureOfThePlatformBecomesAnErrorOfTheHandle) {
  const std::function<bool()> read = [&] {
    return handle_.readDataOfLength(4, &error_).has_value();
  };
  const std::function<bool()> readAll = [&] {
    return handle_.availableDataWithError(&error_).has_value();
  };
  const std::function<bool()> write = [&] {
    handle_.writeData(Data("lost"), &error_);
    return error_ == nullptr;
  };
  const std::function<bool()> open = [&] {
    handle_.openForWritingFile(path_, &error_);
    return error_ == nullptr;
  };
  const struct {
    const char* kind;
    std::function<bool()> operation;
    int code;        ///< of the platform's failure
    int closedCode;  ///< without a handle
  } cases[] = {
      {"read", read, 4, 1},
      {"read", readAll, 4, 1},
      {"write", write, 6, 1},
      {"status", [&] { return handle_.seekToEndOfFile(); }, 0, 0},
      {"truncate", [&] { return handle_.truncateFileToZeroBytes(); }, 0, 0},
      {"syncData", [&] { return handle_.synchronizeFile(); }, 0, 0},
  };
  for (const auto& row : cases) {
    handle_.openForReadingFile(path_, nullptr);
    plan_->failKind(row.kind);
    error_ = nullptr;
    EXPECT_FALSE(row.operation()) << row.kind;
    EXPECT_EQ(codeOf(error_), row.code) << row.kind;
    handle_.closeFile();
    EXPECT_FALSE(row.operation()) << row.kind;
    EXPECT_EQ(codeOf(error_), row.closedCode) << row.kind;
  }
  EXPECT_EQ(readFile(path_), "0123456789");
  EXPECT_EQ(plan_->faults(), std::size(cases));
  plan_->failKind("open", 1, {.error = EMFILE});
  EXPECT_FALSE(open());
  EXPECT_EQ(codeOf(error_), 5);
  EXPECT_FALSE(handle_.isOpenFile(path_));
  EXPECT_TRUE(open());
  handle_.writeData(std::nullopt, &error_);
  EXPECT_EQ(codeOf(error_), 1);
  plan_->failKind("close");
  handle_.closeFile();
  EXPECT_FALSE(handle_.isOpenFile(path_));
}

}  // namespace
}  // namespace skelda::testing
