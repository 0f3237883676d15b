#include <exception>

/// What an interface's table names where no class answers. The C++ library has the same; this one
/// is the shared library's own, so that no table needs a symbol looked up when the library is
/// loaded.
extern "C" [[noreturn]] void __cxa_pure_virtual() {
  std::terminate();
}
