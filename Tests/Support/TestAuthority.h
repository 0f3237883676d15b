#pragma once

#include "Tests/Support/TemporaryDirectory.h"
#include "Tools/skelda-collector/Certificates.h"

namespace skelda::testing {

struct TestCertificate {
  std::string certificateFile;
  std::string keyFile;
};

/// An authority of a test's own: the collector's, in a folder of its own. While it lives
/// SSL_CERT_FILE names it, so that this process trusts it and nobody else.
class TestAuthority {
 public:
  TestAuthority() {
    environment_.set("SSL_CERT_FILE", made(Certificates::Kind::good).authorityPath);
  }

  /// For "localhost" and 127.0.0.1, or one of the bad ones.
  TestCertificate issue(Certificates::Kind kind = Certificates::Kind::good) const {
    const auto paths = made(kind);
    return {paths.certificatePath, paths.keyPath};
  }

 private:
  Certificates made(Certificates::Kind kind) const {
    return Certificates::prepare(folder_.path(), {"localhost", "127.0.0.1"}, kind);
  }

  TemporaryDirectory folder_;
  ScopedEnvironment environment_;
};

}  // namespace skelda::testing
