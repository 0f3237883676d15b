#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/FileCalls.h"
#include "Tests/Support/Basics.h"

namespace skelda::testing {

inline std::int64_t codeOf(const ErrorRef& error) {
  return error ? error->code() : 0;
}

/// How a call fails.
struct Fault {
  int error = 5;  ///< errno; 5 is EIO
  /// Does only so many bytes, or half of them, and succeeds.
  std::optional<std::size_t> shortLength = std::nullopt;
  /// How many calls fail in a row, from the one named.
  std::size_t times = 1;
  /// It is the last thing that the process does.
  bool kills = false;

  static constexpr std::size_t kForEver = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t kHalf = kForEver;
  static Fault always(int error) { return {.error = error, .times = kForEver}; }
};

/// Says which calls of a fake fail, by number or by kind, and remembers what was called. The kind
/// of a call is the name of its method. Any thread.
class FaultPlan {
 public:
  virtual ~FaultPlan() = default;
  /// The `number`th call of any kind from now on, counted from 1.
  void failCall(std::size_t number, Fault fault = {}) { failKind("", number, fault); }
  /// The `nth` call of that kind from now on, counted from 1.
  void failKind(const std::string& kind, std::size_t nth = 1, Fault fault = {}) {
    std::lock_guard lock(mutex_);
    armed_[kind] = Armed{counts_[kind] + nth, fault};
  }
  /// Every call of that kind from now on.
  void failAll(const std::string& kind, int error) { failKind(kind, 1, Fault::always(error)); }
  void clear() {
    std::lock_guard lock(mutex_);
    armed_.clear();
  }

  /// Counts one call and says whether it is to fail. For the fakes.
  virtual std::optional<Fault> next(std::string_view kind) {
    std::lock_guard lock(mutex_);
    std::optional<Fault> fault;
    for (const std::string& name : {std::string(kind), std::string()}) {
      const std::size_t count = ++counts_[name];
      const auto armed = armed_.find(name);
      if (armed != armed_.end() && armed->second.covers(count)) fault = armed->second.fault;
    }
    faults_ += fault.has_value();
    return fault;
  }

  /// Of that kind, or of all.
  std::size_t calls(const std::string& kind = {}) const {
    std::lock_guard lock(mutex_);
    return counts_.contains(kind) ? counts_.at(kind) : 0;
  }
  /// How many calls failed as told: a test that armed a fault asserts that it struck.
  std::size_t faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
  }

 private:
  struct Armed {
    std::size_t first;
    Fault fault;
    bool covers(std::size_t count) const { return count >= first && count - first < fault.times; }
  };

  mutable std::mutex mutex_;
  std::map<std::string, Armed> armed_;  // by kind; those of any kind have none
  std::map<std::string, std::size_t> counts_;
  std::size_t faults_ = 0;
};

/// System calls that fail as planned, installed for as long as the object lives. Kinds are the
/// method names of FileCalls. A short length makes a read, write or copy do only so much
/// and succeed, as the kernel may. With a text, only calls on paths that hold it are planned.
class FaultyFileCalls : public FileCalls {
 public:
  explicit FaultyFileCalls(std::shared_ptr<FaultPlan> plan, std::string only = {})
      : plan_(std::move(plan)), only_(std::move(only)) {
    install(this);
  }
  /// With a plan of its own, reached by ->.
  explicit FaultyFileCalls(std::string only = {})
      : FaultyFileCalls(std::make_shared<FaultPlan>(), std::move(only)) {}
  ~FaultyFileCalls() override { install(nullptr); }
  /// And with the next calls of one kind failing.
  FaultyFileCalls(const std::string& kind, Fault fault, std::string only = {})
      : FaultyFileCalls(std::move(only)) {
    plan_->failKind(kind, 1, fault);
  }
  FaultPlan* operator->() const { return plan_.get(); }

#define MAY_FAIL(result, call, where, parameters, arguments)     \
  result call parameters override {                              \
    return fails(#call, where) ? -1 : FileCalls::call arguments; \
  }
  MAY_FAIL(int, open, path, (const char* path, int flags, ::mode_t mode), (path, flags, mode))
  MAY_FAIL(int, status, fd, (int fd, struct ::stat* status), (fd, status))
  MAY_FAIL(int, statusAt, path, (const char* path, struct ::stat* status), (path, status))
  MAY_FAIL(int, linkStatusAt, path, (const char* path, struct ::stat* status), (path, status))
  MAY_FAIL(int, truncate, fd, (int fd, ::off_t length), (fd, length))
  MAY_FAIL(int, alwaysAppend, fd, (int fd), (fd))
  MAY_FAIL(int, allocate, fd, (int fd, ::off_t length), (fd, length))
  MAY_FAIL(int, syncData, fd, (int fd), (fd))
  MAY_FAIL(int, sync, fd, (int fd), (fd))
  MAY_FAIL(int, rename, to, (const char* from, const char* to), (from, to))
  MAY_FAIL(int, renameNoReplace, to, (const char* from, const char* to), (from, to))
  MAY_FAIL(int, link, to, (const char* from, const char* to), (from, to))
  MAY_FAIL(int, unlink, path, (const char* path), (path))
  MAY_FAIL(int, makeDirectory, path, (const char* path, ::mode_t mode), (path, mode))
  MAY_FAIL(int, removeDirectory, path, (const char* path), (path))
  MAY_FAIL(::ssize_t, entries, fd, (int fd, void* room, std::size_t length), (fd, room, length))
  MAY_FAIL(int, lock, fd, (int fd, int operation), (fd, operation))
  MAY_FAIL(::ssize_t, attribute, path,
           (const char* path, const char* name, void* to, std::size_t size), (path, name, to, size))
  MAY_FAIL(int, setAttribute, path,
           (const char* path, const char* key, const void* of, std::size_t n), (path, key, of, n))
#undef MAY_FAIL
  ::ssize_t read(int fd, void* bytes, std::size_t length, ::off_t at) override {
    return limited("read", fd, length, [&](auto n) { return FileCalls::read(fd, bytes, n, at); });
  }
  ::ssize_t write(int fd, const void* bytes, std::size_t length, ::off_t at) override {
    return limited("write", fd, length, [&](auto n) { return FileCalls::write(fd, bytes, n, at); });
  }
  int close(int fd) override {
    const auto fault = faultAt("close", fd);
    const int result = FileCalls::close(fd);
    return fault ? errno = fault->error, -1 : result;
  }
  ::ssize_t copyRange(int from, ::off_t* fromOffset, int to, ::off_t* toOffset,
                      std::size_t length) override {
    const auto copy = [&](auto n) {
      return FileCalls::copyRange(from, fromOffset, to, toOffset, n);
    };
    return limited("copyRange", from, length, copy);
  }

 private:
  // Nothing is allocated here: allocations may be what fails.
  bool concerns(std::string_view path) const {
    return path.find(only_) != path.npos;
  }
  bool concerns(int fd) const {
    if (only_.empty()) return true;
    char link[32], path[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const auto length = ::readlink(link, path, sizeof path);
    return length > 0 && concerns(std::string_view(path, static_cast<std::size_t>(length)));
  }
  std::optional<Fault> faultAt(const char* kind, auto where) {
    return concerns(where) ? plan_->next(kind) : std::nullopt;
  }
  bool fails(const char* kind, auto where) {
    const auto fault = faultAt(kind, where);
    return fault ? errno = fault->error, true : false;
  }
  template <class Call>
  ::ssize_t limited(const char* kind, int fd, std::size_t length, Call call) {
    const auto fault = faultAt(kind, fd);
    if (!fault) return call(length);
    if (!fault->shortLength) return errno = fault->error, -1;
    // Half of one byte would be the end of the file.
    const std::size_t half = std::max(length / 2, std::min<std::size_t>(length, 1));
    const auto wanted = *fault->shortLength;
    const auto done = call(wanted == Fault::kHalf ? half : std::min(wanted, length));
    if (fault->kills) ::kill(::getpid(), SIGKILL);
    return done;
  }

  const std::shared_ptr<FaultPlan> plan_;
  const std::string only_;
};

}  // namespace skelda::testing
