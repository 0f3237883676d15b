#pragma once

#include <httplib.h>

#include <string_view>

/// The connection below a request that is being served, for what a well-behaved server does not do.
/// Used on the thread that serves the request.
class Connection {
 public:
  explicit Connection(const httplib::Request& request);

  /// Makes every connection to that port of this process look ended by its client, so that whoever
  /// waits for a request there stops waiting. Any thread.
  static void stopReadingOn(int port);

  /// Writes bytes that are no proper answer.
  void write(std::string_view bytes);
  /// Closes the connection at once: the client sees its end, and nothing more arrives there,
  /// whatever the server still writes.
  void close() { leave(false); }
  /// The same, but the client sees a reset.
  void reset() { leave(true); }

 private:
  void leave(bool reset);

  ::SSL* ssl_;
  int fd_;
};
