#include "bench/workload.h"

#include <algorithm>
#include <random>
#include <utility>

namespace zefs_bench {

namespace {

constexpr std::uint64_t kRandomSeed = 0x7a65667301;
constexpr std::uint64_t kAppendSeed = 0x7a65667302;
constexpr std::uint64_t kOffsetSeed = 0x7a65667303;
constexpr std::uint64_t kShuffleSeed = 0x7a65667304;
constexpr std::uint64_t kObjectSeed = 0x7a65667305;

constexpr std::uint64_t kFirstContainer = 64;
constexpr std::uint64_t kObjectsAContainer = 256;
constexpr std::uint64_t kLargestBlocks = 32;
constexpr std::uint64_t kObjectBlocks = 256;

/// The generator is the standard's, bit for bit; the standard's distributions are not, so the
/// bounds are applied here.
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  std::uint64_t Below(std::uint64_t bound) { return engine_() % bound; }

 private:
  std::mt19937_64 engine_;
};

std::uint64_t Mixed(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15U;
  value = (value ^ (value >> 30U)) * 0xbf58476d1ce4e5b9U;
  value = (value ^ (value >> 27U)) * 0x94d049bb133111ebU;
  return value ^ (value >> 31U);
}

ObjectID ObjectAt(std::uint64_t number, Containers containers) {
  ObjectID oid;
  oid.dcid = containers == Containers::kReal ? kFirstContainer + number / kObjectsAContainer : 1;
  for (std::size_t i = 0; i < oid.fp.size(); ++i) {
    const std::uint64_t word = Mixed(number * 4 + i / 8);
    oid.fp[i] = static_cast<unsigned char>(word >> (i % 8 * 8));
  }
  oid.attrByte = 1;
  oid.attrWord = static_cast<std::uint32_t>(number);
  return oid;
}

/// Draws object and place in the object.
void DrawObject(Random& random, std::size_t number, std::uint64_t objects, Containers containers,
                Write* write) {
  write->objectID = ObjectAt(random.Below(objects), containers);
  write->objOff = kBlock * static_cast<std::int64_t>(random.Below(kObjectBlocks));
  write->objCksum = static_cast<std::int64_t>(number) + 1;
}

/// The next write at `sOff`. Draws size, object and place in the object.
Write Draw(Random& random, std::size_t number, std::int64_t sOff, std::uint64_t objects,
           Containers containers) {
  Write write;
  write.sOff = sOff;
  write.eOff = sOff + kBlock * static_cast<std::int64_t>(1 + random.Below(kLargestBlocks));
  DrawObject(random, number, objects, containers, &write);
  return write;
}

}  // namespace

std::vector<Write> RandomWrites(std::size_t count, Containers containers, std::int64_t range,
                                std::uint64_t objects) {
  Random random(kRandomSeed);
  std::vector<Write> writes;
  writes.reserve(count);
  const auto blocks = static_cast<std::uint64_t>(range / kBlock);
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t sOff = kBlock * static_cast<std::int64_t>(random.Below(blocks));
    writes.push_back(Draw(random, i, sOff, objects, containers));
  }
  return writes;
}

std::vector<Write> AppendWrites(std::size_t count, Containers containers) {
  Random random(kAppendSeed);
  std::vector<Write> writes;
  writes.reserve(count);
  std::int64_t end = 0;
  for (std::size_t i = 0; i < count; ++i) {
    writes.push_back(Draw(random, i, end, kObjects, containers));
    end = writes.back().eOff;
  }
  return writes;
}

void DrawObjects(std::vector<Write>* writes) {
  Random random(kObjectSeed);
  for (std::size_t i = 0; i < writes->size(); ++i) {
    DrawObject(random, i, kObjects, Containers::kReal, &(*writes)[i]);
  }
}

void Shuffle(std::vector<Write>* writes) {
  Random random(kShuffleSeed);
  for (std::size_t left = writes->size(); left > 1; --left) {
    std::swap((*writes)[left - 1], (*writes)[random.Below(left)]);
  }
}

std::vector<std::int64_t> UniformOffsets(std::size_t count, std::int64_t range) {
  Random random(kOffsetSeed);
  std::vector<std::int64_t> offsets(count);
  std::generate(offsets.begin(), offsets.end(), [&] {
    return static_cast<std::int64_t>(random.Below(static_cast<std::uint64_t>(range)));
  });
  return offsets;
}

}  // namespace zefs_bench
