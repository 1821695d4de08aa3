#include "fuzz/table_directory/case.h"

#include <algorithm>
#include <limits>
#include <random>

namespace zefs::fuzz {

namespace {

class CaseMutator {
 public:
  explicit CaseMutator(std::uint64_t seed) : random_(seed) {}

  void Mutate(Case* input) {
    if (OneIn(3)) {
      input->plan.options = static_cast<std::uint8_t>(random_());
    }
    if (OneIn(2)) {
      input->plan.order = static_cast<std::uint16_t>(random_());
    }
    if (OneIn(12)) {
      ChangeBytes(&input->archive);
      return;
    }
    // One damage most often, so that it can be told what it does.
    const std::size_t wanted = OneIn(2) ? 1 : 1 + Below(OneIn(4) ? kMostDamages : 3);
    input->damages.resize(Below(wanted + 1));
    while (input->damages.size() < wanted) {
      input->damages.push_back(NewDamage());
    }
    if (OneIn(4)) {
      input->damages[Below(wanted)].value = Number();
    }
  }

 private:
  std::size_t Below(std::size_t limit) { return random_() % limit; }
  bool OneIn(std::size_t n) { return Below(n) == 0; }

  Damage NewDamage() {
    Damage damage;
    damage.kind = static_cast<DamageKind>(Below(static_cast<std::size_t>(DamageKind::kCount)));
    damage.file = static_cast<std::uint8_t>(random_());
    damage.page = static_cast<std::uint16_t>(OneIn(4) ? random_() : Below(16));
    damage.node = static_cast<std::uint16_t>(OneIn(4) ? random_() : Below(64));
    damage.how = static_cast<std::uint8_t>(Below(8));
    damage.unused = static_cast<std::uint8_t>(random_());
    damage.value = Number();
    return damage;
  }

  /// Small numbers, numbers near powers of two, and any.
  std::uint64_t Number() {
    switch (Below(5)) {
      case 0:
        return Below(20);
      case 1:
        return std::uint64_t{0} - Below(20);
      case 2:
        return (std::uint64_t{1} << Below(64)) - 1 + Below(3);
      case 3:
        return random_() >> Below(64);
      default:
        return std::uint64_t{1} << Below(64);
    }
  }

  void ChangeBytes(std::string* bytes) {
    for (std::size_t changes = 1 + Below(4); changes > 0 && !bytes->empty(); --changes) {
      const std::size_t at = Below(bytes->size());
      switch (Below(4)) {
        case 0:
          bytes->erase(at, 1 + Below(8));
          break;
        case 1:
          bytes->insert(at, 1 + Below(8), static_cast<char>(random_()));
          break;
        default:
          (*bytes)[at] = static_cast<char>(Number());
          break;
      }
    }
  }

  std::mt19937_64 random_;
};

}  // namespace

const char* LifePlan::TableType() const {
  constexpr const char* kTypes[] = {"GENERIC", "PROVISION", "INGEST", "GENERIC"};
  return kTypes[options % 4];  // NOLINT(cppcoreguidelines-pro-bounds-constant-array-index)
}

std::vector<Entry> Case::Files() const {
  ByteReader reader(reinterpret_cast<const std::uint8_t*>(archive.data()), archive.size());
  return UnpackDirectory(&reader);
}

Case ReadCase(const std::uint8_t* data, std::size_t size) {
  ByteReader reader(data, size);
  Case input;
  input.plan.options = static_cast<std::uint8_t>(reader.Number(1));
  input.plan.order = static_cast<std::uint16_t>(reader.Number(2));
  const auto damages = static_cast<std::size_t>(reader.Number(1)) % (kMostDamages + 1);
  for (std::size_t i = 0; i < damages; ++i) {
    input.damages.push_back(ReadDamage(&reader));
  }
  input.archive = reader.Bytes(std::numeric_limits<std::size_t>::max());
  return input;
}

std::string WriteCase(const Case& input) {
  std::string bytes;
  AppendNumber(&bytes, input.plan.options, 1);
  AppendNumber(&bytes, input.plan.order, 2);
  AppendNumber(&bytes, input.damages.size(), 1);
  for (const Damage& damage : input.damages) {
    AppendDamage(damage, &bytes);
  }
  return bytes + input.archive;
}

void MutateCase(std::uint64_t seed, Case* input) {
  CaseMutator(seed).Mutate(input);
}

}  // namespace zefs::fuzz
