#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Analytics/Intake/Account/SkeldaIntakeFile.h"
#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"

/// Puts right what a kill left of an intake file: completes the settling that it fell into, makes
/// the account add up, and drops with its reason what cannot be taken up. Before anybody else knows
/// the file.
class SkeldaIntakeRepair {
 public:
  SkeldaIntakeRepair(SkeldaIntakeFile& file, std::uint64_t keyHash, std::array<char, 16> version)
      : file_(file), keyHash_(keyHash), version_(version) {}
  void run();

 private:
  using Place = SkeldaIntakeLayout::Place;
  using Places = std::vector<Place>;

  void completeIntent();
  void measure(const Places& waiting);
  void balance();
  void dropOrKeep(Place at) REQUIRES(file_.mutex_);

  SkeldaIntakeFile& file_;
  const std::uint64_t keyHash_;
  const std::array<char, 16> version_;
};
