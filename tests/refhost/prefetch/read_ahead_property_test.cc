#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::refhost {
namespace {

using test::kSegment;
using test::Pattern;

constexpr int kStores = 16;
constexpr int kSteps = 400;
constexpr std::size_t kLargest = 96 * kSegment;

/// A file of a store that is read ahead, and the bytes that it has to have. Nearly all reads are
/// runs, so that most changes fall into what the table was asked about.
class ReadAndChanged {
 public:
  ReadAndChanged(std::uint64_t seed, const DurableStoreOptions& options)
      : random_(seed), store_((dir_ / "store").string(), options) {
    store_.Create("f");
  }

  void Step() {
    switch (Below(10)) {
      case 0:
      case 1:
      case 2:
        return Write(Below(kLargest), 1 + Below(6 * kSegment));
      case 3:  // next to where was read last, most of it strictly inside of a plan
        return Write(lastRead_ + Below(8 * kSegment), 1 + Below(2 * kSegment));
      case 4:
        return Below(4) == 0 ? Truncate(Below(kLargest)) : store_.Sync();
      case 5:
        return Read(Below(kLargest), 1 + Below(4 * kSegment));
      default:
        return ReadRun();
    }
  }

  DurableStore& store() { return store_; }
  int differences() const { return differences_; }

 private:
  std::size_t Below(std::size_t bound) { return random_() % bound; }

  void Write(std::size_t at, std::size_t size) {
    const std::string bytes = Pattern(random_(), size);
    model_.resize(std::max(model_.size(), at + size), '\0');
    model_.replace(at, size, bytes);
    store_.Write("f", static_cast<std::int64_t>(at), bytes);
  }

  void Truncate(std::size_t size) {
    model_.resize(size, '\0');
    store_.Truncate("f", static_cast<std::int64_t>(size));
  }

  void Read(std::size_t at, std::size_t size) {
    std::string bytes(size, '?');
    bytes.resize(store_.Read("f", static_cast<std::int64_t>(at), bytes.data(), size));
    const std::string expected = at < model_.size() ? model_.substr(at, size) : "";
    differences_ += bytes == expected ? 0 : 1;
    lastRead_ = at;
  }

  void ReadRun() {
    std::size_t at = Below(2) == 0 ? lastRead_ : Below(kLargest);
    const std::size_t size = 1 + Below(3 * kSegment);
    for (std::size_t reads = 2 + Below(12); reads > 0; --reads) {
      Read(at, size);
      at += size;
      if (Below(6) == 0) {  // between two reads of a run, and inside of what is ahead
        Write(at + Below(4 * kSegment), 1 + Below(kSegment));
      }
    }
  }

  std::mt19937_64 random_;
  const test::TempDir dir_;
  DurableStore store_;
  std::string model_;
  std::size_t lastRead_ = 0;
  int differences_ = 0;
};

TEST(ReadAheadProperty, NoReadEverShowsWhatWasThereBeforeAWrite) {
  const char* const given = std::getenv("ZEFS_TEST_SEED");
  const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : 20240607;
  for (int number = 0; number < kStores; ++number) {
    SCOPED_TRACE("ZEFS_TEST_SEED=" + std::to_string(seed) + ", store " + std::to_string(number));
    const test::SmallThresholds thresholds(number % 2 == 0 ? 8 : 64, number % 4 < 2 ? 24 : 100000);
    DurableStoreOptions options = test::SmallStoreOptions();
    options.format.tableType = number % 3 == 0 ? "GENERIC" : "PROVISION";
    options.readAhead.windowBytes = 16 * kSegment;
    options.readAhead.cacheBytes = number % 5 == 0 ? 40000 : 1000000;  // now and then too little
    ReadAndChanged file(seed + static_cast<std::uint64_t>(number), options);
    for (int i = 0; i < kSteps; ++i) {
      file.Step();
      ASSERT_EQ(0, file.differences()) << "step " << i;
    }
    const ReadAheadFigures figures = file.store().readAheadFigures();
    EXPECT_GT(figures.plans, 100U);
    EXPECT_GT(figures.hits, 100U);
    EXPECT_EQ("", file.store().nodes().Problem());
    file.store().Sync();
    EXPECT_EQ("", test::ProblemsOf(file.store()));
  }
}

}  // namespace
}  // namespace zefs::refhost
