#include "Tools/skelda-collector/Certificates.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>

#include "Tools/skelda-collector/Addresses.h"

namespace fs = std::filesystem;

namespace {

constexpr long kDay = 24L * 60 * 60;

template <auto Free>
struct Freer {
  template <class T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freer<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Freer<X509_EXTENSION_free>>;
using Number = std::unique_ptr<BIGNUM, Freer<BN_free>>;
using File = std::unique_ptr<std::FILE, Freer<std::fclose>>;

[[noreturn]] void fail(const std::string& what) {
  const char* reason = ERR_reason_error_string(ERR_get_error());
  throw std::runtime_error(what + (reason ? std::string(": ") + reason : ""));
}

template <class T>
T made(T object, const char* what) {
  if (!object) fail(what);
  return object;
}

void done(int result, const char* what) {
  if (result <= 0) fail(what);
}

struct Identity {
  Key key;
  Certificate certificate;
};

/// Written beside its place first: a start that was cut short leaves no half a file.
template <class Write>
void writeFile(const std::string& path, mode_t forbidden, Write write) {
  const std::string temporary = path + ".new";
  fs::remove(temporary);  // with whatever rights it had
  {
    const mode_t others = ::umask(forbidden);
    const File file(std::fopen(temporary.c_str(), "we"));
    ::umask(others);
    if (!file || !write(file.get()) || std::fflush(file.get()) != 0 || ::fsync(fileno(file.get())))
      fail(path + ": cannot be written");
  }
  fs::rename(temporary, path);
}

void save(const Identity& identity, const std::string& certificatePath,
          const std::string& keyPath) {
  writeFile(keyPath, 0077, [&](std::FILE* file) {
    return PEM_write_PrivateKey(file, identity.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  writeFile(certificatePath, 0022,
            [&](std::FILE* file) { return PEM_write_X509(file, identity.certificate.get()); });
}

/// Nobody is asked for the words that a key is locked with.
int noPassword(char*, int, int, void*) {
  return 0;
}

Identity load(const std::string& certificatePath, const std::string& keyPath) {
  Identity identity;
  const File certificate(std::fopen(certificatePath.c_str(), "re"));
  const File key(std::fopen(keyPath.c_str(), "re"));
  if (!certificate || !key) return identity;
  identity.certificate.reset(PEM_read_X509(certificate.get(), nullptr, nullptr, nullptr));
  identity.key.reset(PEM_read_PrivateKey(key.get(), nullptr, noPassword, nullptr));
  ERR_clear_error();
  return identity;
}

struct Recipe {
  std::string commonName;
  std::set<std::string> names;  // host names and addresses; none for an authority
  long from = -kDay;            // seconds from now
  long until = 825 * kDay;
  bool authority = false;
};

std::string alternativeNames(const std::set<std::string>& names) {
  std::string text;
  for (const auto& name : names) {
    text += (text.empty() ? "" : ",") + std::string(isNumericAddress(name) ? "IP:" : "DNS:") + name;
  }
  return text;
}

void addExtension(X509* certificate, X509* issuer, int identifier, const std::string& value) {
  X509V3_CTX context{};
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, identifier, value.c_str()));
  if (!extension) fail("extension " + value);
  done(X509_add_ext(certificate, extension.get(), -1), "extension");
}

void setName(X509_NAME* name, const std::string& commonName) {
  const auto* text = reinterpret_cast<const unsigned char*>(commonName.c_str());
  done(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, text, -1, -1, 0), "name");
}

/// Signed by `issuer`, or by itself when that is null.
Identity issue(const Recipe& recipe, const Identity* issuer) {
  Identity identity{Key(made(EVP_EC_gen("P-256"), "key")), Certificate(X509_new())};
  X509* certificate = made(identity.certificate.get(), "certificate");
  done(X509_set_version(certificate, X509_VERSION_3), "version");

  const Number serial(made(BN_new(), "serial number"));
  done(BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY), "serial number");
  made(BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)), "serial number");
  made(X509_gmtime_adj(X509_getm_notBefore(certificate), recipe.from), "first day");
  made(X509_gmtime_adj(X509_getm_notAfter(certificate), recipe.until), "last day");
  done(X509_set_pubkey(certificate, identity.key.get()), "public key");
  setName(X509_get_subject_name(certificate), recipe.commonName);

  X509* signer = issuer ? issuer->certificate.get() : certificate;
  done(X509_set_issuer_name(certificate, X509_get_subject_name(signer)), "issuer");
  addExtension(certificate, signer, NID_basic_constraints,
               recipe.authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(certificate, signer, NID_key_usage,
               recipe.authority ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  addExtension(certificate, signer, NID_subject_key_identifier, "hash");
  if (!recipe.authority) addExtension(certificate, signer, NID_ext_key_usage, "serverAuth");
  if (!recipe.names.empty())
    addExtension(certificate, signer, NID_subject_alt_name, alternativeNames(recipe.names));
  done(X509_sign(certificate, (issuer ? issuer->key : identity.key).get(), EVP_sha256()), "sign");
  return identity;
}

bool isFor(X509* certificate, const std::string& name) {
  return isNumericAddress(name) ? X509_check_ip_asc(certificate, name.c_str(), 0) == 1
                                : X509_check_host(certificate, name.c_str(), 0, 0, nullptr) == 1;
}

bool isGood(const Identity& server, const Identity& authority, const std::set<std::string>& names) {
  if (!server.certificate || !server.key) return false;
  X509* certificate = server.certificate.get();
  if (X509_check_private_key(certificate, server.key.get()) != 1) return false;
  if (X509_verify(certificate, authority.key.get()) != 1) return false;
  std::time_t soon = std::time(nullptr) + kDay;
  if (X509_cmp_time(X509_get0_notAfter(certificate), &soon) <= 0) return false;
  for (const auto& name : names)
    if (!isFor(certificate, name)) return false;
  return true;
}

Recipe recipeFor(Certificates::Kind kind, std::set<std::string> names) {
  Recipe recipe{.commonName = "skelda-collector", .names = std::move(names)};
  if (kind == Certificates::Kind::expired) {
    recipe.from = -30 * kDay;
    recipe.until = -kDay;
  }
  if (kind == Certificates::Kind::wrongName) recipe.names = {"elsewhere.example"};
  return recipe;
}

const char* suffixOf(Certificates::Kind kind) {
  switch (kind) {
    case Certificates::Kind::good:
      break;
    case Certificates::Kind::expired:
      return "-expired";
    case Certificates::Kind::selfSigned:
      return "-self-signed";
    case Certificates::Kind::wrongName:
      return "-wrong-name";
  }
  return "";
}

Identity authorityIn(const std::string& certificatePath, const std::string& keyPath) {
  auto authority = load(certificatePath, keyPath);
  if (authority.certificate && authority.key) return authority;
  // Without a certificate nobody trusts the key: a first start was cut short.
  if (fs::exists(certificatePath))
    fail(certificatePath + " and its key do not make an authority; remove them to have a new one");
  authority = issue({.commonName = "skelda-collector authority",
                     .names = {},
                     .until = 3650 * kDay,
                     .authority = true},
                    nullptr);
  save(authority, certificatePath, keyPath);
  return authority;
}

}  // namespace

Certificates Certificates::prepare(const std::string& folder, std::set<std::string> names,
                                   Kind kind) {
  fs::create_directories(folder);
  const std::string server = folder + "/server" + suffixOf(kind);
  const Certificates paths{folder + "/authority.pem", server + ".pem", server + "-key.pem"};
  const auto authority = authorityIn(paths.authorityPath, folder + "/authority-key.pem");
  names.insert({"localhost", "127.0.0.1", "::1"});
  const bool reuse =
      kind == Kind::good && isGood(load(paths.certificatePath, paths.keyPath), authority, names);
  ERR_clear_error();
  if (!reuse)
    save(issue(recipeFor(kind, names), kind == Kind::selfSigned ? nullptr : &authority),
         paths.certificatePath, paths.keyPath);
  return paths;
}

Certificates Certificates::given(const std::string& certificatePath, const std::string& keyPath) {
  const auto identity = load(certificatePath, keyPath);
  if (!identity.certificate) fail(certificatePath + " holds no certificate in PEM");
  if (!identity.key) fail(keyPath + " holds no key in PEM, or one locked with a password");
  if (X509_check_private_key(identity.certificate.get(), identity.key.get()) != 1)
    fail(keyPath + " is not the key of " + certificatePath);
  if (X509_cmp_current_time(X509_get0_notAfter(identity.certificate.get())) <= 0)
    fail(certificatePath + " has expired");
  if (X509_cmp_current_time(X509_get0_notBefore(identity.certificate.get())) > 0)
    fail(certificatePath + " is not valid yet");
  return {"", certificatePath, keyPath};
}

bool Certificates::isName(const std::string& text) {
  static const std::regex name(R"([A-Za-z0-9_]([A-Za-z0-9_-]*[A-Za-z0-9_])?(\.[A-Za-z0-9_-]+)*)");
  return isNumericAddress(text) || (text.size() <= 253 && std::regex_match(text, name));
}

std::set<std::string> Certificates::missing(const std::set<std::string>& names) const {
  const auto identity = load(certificatePath, keyPath);
  std::set<std::string> missing;
  for (const auto& name : names)
    if (!identity.certificate || !isFor(identity.certificate.get(), name)) missing.insert(name);
  ERR_clear_error();
  return missing;
}
