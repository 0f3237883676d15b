#pragma once

namespace skelda::platform {

/// Keeps the cryptographic library usable until the process is gone: by itself it tears its state
/// down inside exit(), under the hands of threads that still seal, hash or talk TLS. Counts only
/// when it comes before every other use of the library in the process. Any thread, any number of
/// times.
void keepCryptographyUntilTheEnd() noexcept;

}  // namespace skelda::platform
