#pragma once

/// What the runner has decided, told to the agent as an application would: properties of theirs,
/// their consent, and what they want of their data. At first they take part.
struct Choices {
  /// Before the run: properties and consent.
  static void atTheStart();
  /// After it: no sale of their data, and what there is to be deleted.
  static void atTheEnd();
};
