#pragma once

#include <set>
#include <string>

/// The collector's own certificate authority and its server certificate, kept in a folder:
///   authority.pem, authority-key.pem   made on the first start, good for ten years
///   server.pem, server-key.pem         for the loopback names and addresses, this host's name and
///                                      what else a client may call it; made again when they run
///                                      out or when a name is not among them
/// Keys can be read by their owner alone. A client trusts the collector when authority.pem is among
/// its authorities.
class Certificates {
 public:
  /// What the server shows. The bad ones stand in files of their own (server-expired.pem and so
  /// on) and are there to see that clients refuse them.
  enum class Kind { good, expired, selfSigned, wrongName };

  /// Reads what is in `folder` and makes what is missing. `names` are host names and addresses.
  /// Throws std::runtime_error, naming the file or the step, when that fails.
  static Certificates prepare(const std::string& folder, std::set<std::string> names, Kind kind);

  /// Somebody else's: a certificate, behind it those up to its authority, and its key, in PEM.
  /// Throws std::runtime_error when they do not fit or are not valid today.
  static Certificates given(const std::string& certificatePath, const std::string& keyPath);

  /// Whether that can stand in a certificate: an address, or a name of the internet.
  static bool isName(const std::string& text);

  /// Of `names`, those that the server's certificate is not for.
  std::set<std::string> missing(const std::set<std::string>& names) const;

  std::string authorityPath;  // empty for somebody else's
  std::string certificatePath;
  std::string keyPath;
};
