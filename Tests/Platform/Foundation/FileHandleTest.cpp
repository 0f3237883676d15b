#include "Platform/Foundation/FileHandle.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Tests/Support/Testing.h"

namespace {

struct FileHandleTest : testing::Test {
  FileHandleTest() { writeFile(path_, "0123456789"); }
  TemporaryDirectory directory_;
  const std::string path_ = directory_ / "file";
};

TEST_F(FileHandleTest, ReadsWhatTheFileStillGivesWhateverIsAskedFor) {
  const auto handle = FileHandle::forReadingAtPath(path_);
  EXPECT_EQ(handle->readDataOfLength(4).view(), "0123");
  // Far more than there is memory for.
  EXPECT_EQ(handle->readDataOfLength(~std::size_t{0} - 7).view(), "456789");
  EXPECT_TRUE(handle->readDataOfLength(100).empty());
  writeFile(path_, "0123456789 and more");
  EXPECT_EQ(handle->readDataToEndOfFile().view(), " and more");
  // The first call gives what was there at the opening.
  const auto other = FileHandle::forReadingAtPath(path_);
  writeFile(path_, "0123456789 and more!");
  EXPECT_EQ(other->readDataToEndOfFile().view(), "0123456789 and more");
  EXPECT_EQ(other->readDataToEndOfFile().view(), "!");
  int error = 0;
  const auto both = FileDescriptor::openFile(path_, O_RDWR, error);
  std::string whole;
  EXPECT_EQ(both.write("?", 20) | both.read(whole, 100, 0), 0);
  EXPECT_EQ(whole, "0123456789 and more!?");
  EXPECT_GT(FileHandle::forReadingAtPath("/proc/self/status")->readDataToEndOfFile().length(), 99u);
}

TEST_F(FileHandleTest, WritesWhereItStandsAndNeverMakesAFile) {
  EXPECT_EQ(FileHandle::forWritingAtPath(directory_ / "absent"), nullptr);
  EXPECT_EQ(FileHandle::forReadingAtPath(directory_ / "absent"), nullptr);
  EXPECT_EQ(FileHandle::forWritingAtPath(directory_.path()), nullptr);
  const auto handle = FileHandle::forWritingAtPath(path_);
  handle->writeData(Data("AB"));
  handle->seekToEndOfFile();
  handle->writeData(Data("CD"));
  EXPECT_EQ(readFile(path_), "AB23456789CD");
  handle->truncateFileAtOffset(3);
  handle->writeData(Data("E"));
  handle->synchronizeFile();
  EXPECT_EQ(readFile(path_), "AB2E");
  handle->closeFile();
  EXPECT_THROW(handle->writeData(Data("F")), Exception);
  EXPECT_THROW(handle->seekToEndOfFile(), Exception);
  EXPECT_NO_THROW(handle->closeFile());

  // A host may have closed its standard input: then its number is a file's like any other.
  const int input = ::dup(STDIN_FILENO);
  ::close(STDIN_FILENO);
  FileHandle::forReadingAtPath(path_)->closeFile();
  EXPECT_LT(::fcntl(STDIN_FILENO, F_GETFD), 0);
  ::dup2(input, STDIN_FILENO);
  ::close(input);
}

TEST_F(FileHandleTest, AFailedWriteLeavesTheFileAsLongAsItWas) {
  const FaultyFileCalls plan;
  const auto handle = FileHandle::forWritingAtPath(path_);
  const auto writeThreeBytes = [&](int error) {
    plan->failKind("write", 1, {.shortLength = 3});
    plan->failCall(2, {.error = error});
    EXPECT_THROW(handle->writeData(Data("lost bytes")), Exception);
  };
  handle->seekToEndOfFile();
  writeThreeBytes(ENOSPC);
  EXPECT_EQ(plan->faults(), 2u);
  EXPECT_EQ(readFile(path_), "0123456789");
  handle->writeData(Data("kept"));
  EXPECT_EQ(readFile(path_), "0123456789kept");

  // Where not even the cut succeeds, it is made before the next write.
  for (const auto kind : {"status", "truncate"}) {
    plan->failKind(kind);
    writeThreeBytes(EIO);
    EXPECT_TRUE(readFile(path_).ends_with("los"));
    handle->seekToEndOfFile();
    handle->writeData(Data("+"));
  }
  EXPECT_EQ(readFile(path_), "0123456789kept++");

  // Somebody else cuts the file: no hole is left, neither by a write nor by a cut that is due.
  std::filesystem::resize_file(path_, 3);
  handle->writeData(Data("kept"));
  EXPECT_EQ(readFile(path_), "012kept");
  plan->failKind("truncate");
  writeThreeBytes(EIO);
  std::filesystem::resize_file(path_, 1);
  handle->writeData(Data("too"));
  EXPECT_EQ(readFile(path_), "0too");

  for (const auto kind : {"write", "truncate", "syncData", "close"}) {
    plan->failKind(kind);
    const auto all = [&] {
      handle->writeData(Data("+"));
      handle->truncateFileAtOffset(17);
      handle->synchronizeFile();
      handle->closeFile();
    };
    EXPECT_THROW(all(), Exception) << kind;
    plan->clear();
  }
}

}  // namespace
