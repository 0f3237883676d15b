#pragma once

/// What the runner says of themselves and decides, told to the agent as an application would: who
/// they are, properties, their consent, what they buy on the way, and what they want of their data.
/// At first they take part. Each answers how many events were accepted.
struct Choices {
  /// Before the run: user, properties and consent, and the beginning of an event that takes time.
  static unsigned atTheStart();
  /// After it: its end, a purchase, no sale of their data, and what there is to be deleted.
  static unsigned atTheEnd();
};
