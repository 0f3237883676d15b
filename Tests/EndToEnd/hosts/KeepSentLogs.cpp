// Linked beside a watch application: before its main, copies of what is sent are asked for.

#include <cstdlib>

#include "Tests/Support/SentLogKeeper.h"

namespace {

const bool kKept = [] {
  const char* folder = std::getenv("SKELDA_TEST_KEEP_SENT");
  if (folder != nullptr) SentLogKeeper::install(folder);
  return folder != nullptr;
}();

}  // namespace
