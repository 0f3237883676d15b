#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {

/// A server's certificate and key, as PEM files.
struct TestCertificate {
  std::string certificateFile;
  std::string keyFile;
};

/// An authority of a test's own, made at run time. While it lives SSL_CERT_FILE names it, so that
/// this process trusts it and nobody else.
class TestAuthority {
 public:
  TestAuthority();
  ~TestAuthority();
  TestAuthority(const TestAuthority&) = delete;
  TestAuthority& operator=(const TestAuthority&) = delete;

  /// For those names ("DNS:localhost", "IP:127.0.0.1"), valid until so long from now.
  TestCertificate issue(const std::string& names = "DNS:localhost,IP:127.0.0.1",
                        std::chrono::hours validity = std::chrono::hours(24));
  /// The same, but signed by an authority that nobody knows.
  TestCertificate issueUntrusted();
  std::string bundleFile() const;

 private:
  struct Keys;
  TestCertificate write(Keys& subject);

  TemporaryDirectory folder_;
  std::unique_ptr<Keys> root_;
  ScopedEnvironment environment_;
  int issued_ = 0;
};

}  // namespace skelda::testing
