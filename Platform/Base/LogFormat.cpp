#include "Platform/Base/LogFormat.h"

namespace skelda::platform {

void formatLogLine(Log::Kind kind, fmt::string_view format, fmt::format_args arguments) noexcept {
  try {
    // Into text: the library does that within itself, a buffer would bring its formatting in here.
    Log::write(fmt::vformat(format, arguments), kind);
  } catch (...) {
    Log::write("(a line is lost for want of memory)", kind);
  }
}

}  // namespace skelda::platform
