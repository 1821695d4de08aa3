#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/table_directory/archive.h"
#include "fuzz/table_directory/damage.h"

namespace zefs::fuzz {

/// How the table is used.
struct LifePlan {
  std::uint8_t options = 0;  ///< see the functions below
  std::uint16_t order = 0;   ///< seed of the order of its operations

  const char* TableType() const;
  bool PersistBloom() const { return (options & 4) != 0; }
  bool Prefetch() const { return (options & 8) != 0; }
  bool SecondLife() const { return (options & 16) != 0; }  ///< loads once more afterwards
  bool SmallBatches() const { return (options & 32) != 0; }
};

/// One input: how the table is used (options 1 byte, order 2), the damage (the number of damages 1
/// byte, 16 bytes each), and the sound directory.
struct Case {
  LifePlan plan;
  std::vector<Damage> damages;
  std::string archive;

  std::vector<Entry> Files() const;
};

inline constexpr std::size_t kMostDamages = 6;

Case ReadCase(const std::uint8_t* data, std::size_t size);  ///< any bytes are a case
std::string WriteCase(const Case& input);

/// Changes a case: mostly its damages, sometimes the use, now and then the bytes of the directory.
void MutateCase(std::uint64_t seed, Case* input);

}  // namespace zefs::fuzz
