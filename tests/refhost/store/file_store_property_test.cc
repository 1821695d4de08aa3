#include <algorithm>
#include <cstring>
#include <rapidcheck.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/store/recount.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

using test::SmallStore;

/// One random operation on a file of a few segments.
struct Step {
  enum Kind { kWrite, kAppend, kTruncate, kWriteBehindEnd };
  Kind kind;
  std::int64_t offset;
  std::size_t length;
  unsigned char fill;
};

void showValue(const Step& step, std::ostream& out) {
  static const char* const kNames[] = {"write", "append", "truncate", "write behind end"};
  out << kNames[step.kind] << " offset " << step.offset << " length " << step.length << " fill "
      << static_cast<int>(step.fill);
}

rc::Gen<Step> AnyStep() {
  return rc::gen::build<Step>(
      rc::gen::set(&Step::kind, rc::gen::element(Step::kWrite, Step::kWrite, Step::kAppend,
                                                 Step::kTruncate, Step::kWriteBehindEnd)),
      rc::gen::set(&Step::offset, rc::gen::inRange<std::int64_t>(0, 6000)),
      rc::gen::set(&Step::length, rc::gen::inRange<std::size_t>(0, 2000)),
      rc::gen::set(&Step::fill, rc::gen::inRange<unsigned char>(0, 6)));
}

/// Small fills are runs, which are deduplicated; others count up, so that a shifted byte is seen.
std::string DataOf(const Step& step) {
  std::string bytes(step.length, static_cast<char>('a' + step.fill));
  if (step.fill >= 2) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>(i * step.fill + i / 251 + static_cast<std::size_t>(step.offset));
    }
  }
  return bytes;
}

void ApplyToModel(const Step& step, std::int64_t offset, std::string* model) {
  const auto at = static_cast<std::size_t>(offset);
  if (step.kind == Step::kTruncate) {
    model->resize(at, '\0');
    return;
  }
  const std::string bytes = DataOf(step);
  if (!bytes.empty()) {
    model->resize(std::max(model->size(), at + bytes.size()), '\0');
    model->replace(at, bytes.size(), bytes);
  }
}

TEST(FileStoreProperty, ReadsWhatAByteVectorHoldsAfterAnyChanges) {
  const bool holds = rc::check([] {
    SmallStore store(512, 4096);
    const auto id = store.files.Create();
    std::string model;
    for (const Step& step : *rc::gen::container<std::vector<Step>>(AnyStep())) {
      const auto size = static_cast<std::int64_t>(model.size());
      const std::int64_t offset = step.kind == Step::kAppend           ? size
                                  : step.kind == Step::kWriteBehindEnd ? size + step.offset % 1500
                                                                       : step.offset;
      if (step.kind == Step::kTruncate) {
        store.files.Truncate(id, offset);
      } else {
        store.files.Write(id, offset, DataOf(step));
      }
      ApplyToModel(step, offset, &model);
      RC_ASSERT(store.ReadAll(id) == model);
      ReferenceCounts total;
      RC_ASSERT(ReferenceDifference(store.files.TableOf(id), store.files.SizeOf(id), &total) == "");
    }
    const auto from = *rc::gen::inRange<std::size_t>(0, model.size() + 10);
    const auto length = *rc::gen::inRange<std::size_t>(0, 3000);
    std::string part(length, '?');
    part.resize(store.files.Read(id, static_cast<std::int64_t>(from), part.data(), length));
    RC_ASSERT(part == (from < model.size() ? model.substr(from, length) : ""));
  });
  EXPECT_TRUE(holds);
}

}  // namespace
}  // namespace zefs::refhost
