#pragma once

#include <string>
#include <string_view>

namespace skelda::tools {

/// Standard output, buffered. The first failure ends the program's business: whoever writes asks
/// failed() and stops.
class Output {
 public:
  void write(std::string_view text);
  void flush();
  bool failed() const noexcept { return error_ != 0; }
  /// The failure as in errno; 0 where there is none. EPIPE says that the reader has gone.
  int error() const noexcept { return error_; }

 private:
  std::string buffer_;
  int error_ = 0;
};

}  // namespace skelda::tools
