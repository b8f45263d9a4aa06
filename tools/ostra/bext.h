// The broadcast-wave extension chunk (`bext`): who made a take, when, and where it sits
// in the day, read from its bytes without trusting any of them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ostra::cli {

struct BextFacts {
  std::string description, originator, reference, date, time;
  uint64_t timeReference = 0;  // samples since midnight
  unsigned version = 0;
  std::string umid;  // hexadecimal, version 1 and later, empty when all zero
  // Loudness values of version 2, in hundredths (LUFS, LU, dBTP): set when present.
  std::optional<int> loudness, loudnessRange, maxTruePeak, maxMomentary, maxShortTerm;
  std::string codingHistory;
};

// Null when the chunk is shorter than its fixed part.
std::optional<BextFacts> parseBext(const uint8_t* body, size_t size);

}  // namespace ostra::cli
