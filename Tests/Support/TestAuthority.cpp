#include "Tests/Support/TestAuthority.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace skelda::testing {

struct TestAuthority::Keys {
  Keys(const char* commonName, std::chrono::hours validity, Keys* issuer, const char* constraints,
       const std::string& names)
      : key(EVP_EC_gen("P-256"), &EVP_PKEY_free), certificate(X509_new(), &X509_free) {
    std::uint64_t serial = 0;
    RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial);
    auto* x509 = certificate.get();
    X509_set_version(x509, 2);
    ASN1_INTEGER_set_uint64(X509_get_serialNumber(x509), serial >> 1);
    X509_gmtime_adj(X509_getm_notBefore(x509), -48 * 3600L);
    const auto seconds = static_cast<long>(std::chrono::seconds(validity).count());
    X509_gmtime_adj(X509_getm_notAfter(x509), seconds);
    X509_set_pubkey(x509, key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
    auto* signer = issuer != nullptr ? issuer->certificate.get() : x509;
    X509_set_issuer_name(x509, X509_get_subject_name(signer));
    add(signer, NID_basic_constraints, constraints);
    if (!names.empty()) add(signer, NID_subject_alt_name, names.c_str());
    if (X509_sign(x509, (issuer != nullptr ? *issuer : *this).key.get(), EVP_sha256()) == 0) {
      throw std::runtime_error("unable to sign a certificate");
    }
  }

  void add(X509* signer, int kind, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, signer, certificate.get(), nullptr, nullptr, 0);
    auto* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value);
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
  }

  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key;
  std::unique_ptr<X509, decltype(&X509_free)> certificate;
};

TestAuthority::TestAuthority()
    : root_(std::make_unique<Keys>("test authority", std::chrono::hours(24), nullptr,
                                   "critical,CA:TRUE", "")) {
  std::FILE* file = std::fopen(bundleFile().c_str(), "w");
  PEM_write_X509(file, root_->certificate.get());
  std::fclose(file);
  environment_.set("SSL_CERT_FILE", bundleFile());
}

TestAuthority::~TestAuthority() = default;

std::string TestAuthority::bundleFile() const {
  return folder_.path() + "/authority.pem";
}

TestCertificate TestAuthority::issue(const std::string& names, std::chrono::hours validity) {
  Keys subject("loopback", validity, root_.get(), "CA:FALSE", names);
  return write(subject);
}

TestCertificate TestAuthority::issueUntrusted() {
  const auto day = std::chrono::hours(24);
  Keys stranger("another authority", day, nullptr, "critical,CA:TRUE", "");
  Keys subject("loopback", day, &stranger, "CA:FALSE", "DNS:localhost,IP:127.0.0.1");
  return write(subject);
}

TestCertificate TestAuthority::write(Keys& subject) {
  const std::string base = folder_.path() + "/" + std::to_string(issued_++);
  const TestCertificate files{base + ".crt", base + ".key"};
  std::FILE* certificate = std::fopen(files.certificateFile.c_str(), "w");
  PEM_write_X509(certificate, subject.certificate.get());
  std::fclose(certificate);
  std::FILE* key = std::fopen(files.keyFile.c_str(), "w");
  PEM_write_PrivateKey(key, subject.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  std::fclose(key);
  return files;
}

}  // namespace skelda::testing
