#pragma once

#include <string>

/// The collector's own certificate authority and its server certificate, kept in a folder:
///   authority.pem, authority-key.pem   made on the first start, good for ten years
///   server.pem, server-key.pem         for the loopback names and addresses, this host's name and
///                                      the address listened on; made again when they run out or
///                                      when the address is not among them
/// A client trusts the collector when authority.pem is among its authorities.
class Certificates {
 public:
  /// What the server shows. The bad ones stand in files of their own (server-expired.pem and so
  /// on) and are there to see that clients refuse them.
  enum class Kind { good, expired, selfSigned, wrongName };

  /// Reads what is in `folder` and makes what is missing. `address` is what is listened on. Throws
  /// std::runtime_error, naming the file or the step, when that fails.
  static Certificates prepare(const std::string& folder, const std::string& address, Kind kind);

  std::string authorityPath;
  std::string certificatePath;
  std::string keyPath;
};
