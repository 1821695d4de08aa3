#include "bench/trace.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bench/peers/stores.h"
#include "bench/trace_run.h"
#include "bench/unit_subjects.h"
#include "refhost/replay/trace_reader.h"
#include "tests/bench/block_model.h"
#include "tests/bench/rows.h"
#include "tests/support/temp_dir.h"

// Traces as the benchmarks load and run them: every store shows, at every read, what was written
// before, stored or not.

namespace zefs_bench {
namespace {

using testing::HasSubstr;
using testing::SizeIs;
using zefs::refhost::TraceError;
using zefs::refhost::TraceRequest;
using zefs::test::TempDir;
using Operation = TraceRequest::Operation;
using Model = BlockModel<kBlock>;

constexpr std::size_t kRequests = 1500;
constexpr std::size_t kBatch = 70;
constexpr std::size_t kUnits = 3;
constexpr std::int64_t kRange = 300 * kBlock;

std::string Written(const TempDir& directory, const std::string& text) {
  std::string path = (directory / "day-1.txt").string();
  std::ofstream(path) << text;
  return path;
}

std::string RefusalOf(const std::string& text) {
  const TempDir directory;
  try {
    LoadTrace(Written(directory, text));
  } catch (const TraceError& error) {
    return error.what();
  }
  return "none";
}

/// Writes and reads by turns, ranges and units at random.
Trace RandomTrace() {
  Trace trace;
  trace.units = kUnits;
  for (const Write& range : RandomWrites(kRequests, Containers::kReal, kRange)) {
    TraceRequest& request = trace.requests.emplace_back();
    request.operation = range.objOff % (2 * kBlock) == 0 ? Operation::kRead : Operation::kWrite;
    request.start = range.sOff;
    request.end = range.eOff;
    request.unit = range.objectID.attrWord % kUnits;
    trace.writes += request.operation == Operation::kWrite ? 1U : 0U;
  }
  return trace;
}

/// The model behind the interface of the subjects.
class ModelUnits {
 public:
  void Insert(std::size_t unit, const Write& write) { models_.at(unit).Insert(write); }
  void Flush() {}
  template <typename Use>
  void Read(std::size_t unit, std::int64_t start, std::int64_t end, Use use) {
    for (const Row& row : models_.at(unit).Rows()) {
      const auto& [sOff, eOff, objOff, checksum, dcid, fp, attrWord, data, dcOffset] = row;
      if (start < eOff && sOff < end) {
        ObjectID id;
        id.dcid = dcid;
        id.fp = fp;
        id.attrWord = attrWord;
        use(sOff, eOff, objOff, id);
      }
    }
  }

 private:
  std::array<Model, kUnits> models_;
};

/// Keeps what each read shows, clipped to what was asked for. Objects are compared whole here.
template <typename Subject>
class Recorded {
 public:
  explicit Recorded(Subject* subject) : subject_(*subject) {}

  void Insert(std::size_t unit, const Write& write) { subject_.Insert(unit, write); }
  void Flush() { subject_.Flush(); }
  template <typename Use>
  void Read(std::size_t unit, std::int64_t start, std::int64_t end, Use use) {
    subject_.Read(unit, start, end,
                  [&](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const auto& id) {
                    const std::int64_t from = std::max(sOff, start);
                    rows_.push_back(RowOf(from, std::min(eOff, end), objOff + (from - sOff), id));
                    use(sOff, eOff, objOff, id);
                  });
  }
  const std::vector<Row>& rows() const { return rows_; }

 private:
  Subject& subject_;
  std::vector<Row> rows_;
};

struct Outcome {
  Shown reads;
  Shown inTheEnd;
  std::vector<Row> rows;
};

template <typename Subject>
Outcome OutcomeOf(const Trace& trace, const std::vector<Write>& writes, Subject& subject) {
  Recorded<Subject> recorded(&subject);
  const Shown reads = RunTrace(trace, writes, kBatch, recorded).shown;
  return {reads, ShownByAllUnits(kUnits, recorded), recorded.rows()};
}

struct ExpectedOfAll {
  const Trace& trace;
  const std::vector<Write>& writes;
  const Outcome& expected;

  template <typename Subject>
  void Check(const std::string& name) const {
    SCOPED_TRACE(name);
    const TempDir directory;
    Subject subject(directory.path(), kUnits);
    const Outcome outcome = OutcomeOf(trace, writes, subject);
    EXPECT_EQ(expected.rows, outcome.rows);
    EXPECT_TRUE(expected.reads == outcome.reads);
    EXPECT_TRUE(expected.inTheEnd == outcome.inTheEnd);
    subject.Settle();
    EXPECT_TRUE(expected.inTheEnd == ShownByAllUnits(kUnits, subject));
  }
  template <typename Peer>
  void operator()(const std::string& name) const {
    Check<UnitsInKeys<Peer>>(name);
  }
};

TEST(BenchTrace, NumbersUnitsAsTheyComeAndCountsWrites) {
  const TempDir directory;
  const Trace trace = LoadTrace(Written(directory, "W 0 512 7\nR 512 8192 3\nW 1 2 7\n"));
  EXPECT_EQ("day-1", trace.name);
  EXPECT_EQ(2, trace.units);
  EXPECT_EQ(2, trace.writes);
  ASSERT_THAT(trace.requests, SizeIs(3));
  EXPECT_EQ(0, trace.requests[0].unit);
  EXPECT_EQ(1, trace.requests[1].unit);
  EXPECT_EQ(0, trace.requests[2].unit);
  EXPECT_EQ(Operation::kRead, trace.requests[1].operation);
  EXPECT_EQ(512, trace.requests[1].start);
  EXPECT_EQ(8704, trace.requests[1].end);
}

TEST(BenchTrace, IsRefusedWithTheLineThatIsNoRequest) {
  EXPECT_THAT(RefusalOf("W 0 512\nX 0 512\n"), HasSubstr("day-1.txt:2: unknown operation 'X'"));
}

TEST(BenchTrace, IsRefusedWithAnOffsetThatDoesNotFitBesideTheUnit) {
  const std::string last = std::to_string(kUnitRoom - 2);
  EXPECT_EQ("none", RefusalOf("W " + last + " 1\n"));
  EXPECT_THAT(RefusalOf("W " + last + " 2\n"), HasSubstr(":1: the offset"));
}

TEST(BenchTrace, WritesEachRoundAnotherObjectToTheSameRanges) {
  const Trace trace = RandomTrace();
  const auto writes = WritesOf(trace, 2);
  ASSERT_THAT(writes, SizeIs(2 * trace.writes));
  std::size_t same = 0;
  for (std::size_t i = 0; i < trace.writes; ++i) {
    const Write& again = writes[trace.writes + i];
    EXPECT_EQ(writes[i].sOff, again.sOff);
    EXPECT_EQ(writes[i].eOff, again.eOff);
    same += writes[i].objectID.fp == again.objectID.fp ? 1U : 0U;
  }
  EXPECT_GT(5, same);
}

TEST(BenchTraceRun, ShowsTheSameInEveryStoreAndInAModel) {
  const Trace trace = RandomTrace();
  for (const std::size_t rounds : {1U, 2U}) {
    SCOPED_TRACE(rounds);
    const auto writes = WritesOf(trace, rounds);
    ModelUnits model;
    const Outcome expected = OutcomeOf(trace, writes, model);
    ASSERT_LT(kRequests, expected.rows.size());
    const ExpectedOfAll all{trace, writes, expected};
    all.Check<TablePerUnit>("table");
    const MergeAfter few(kBatch);
    all.Check<TablePerUnit>("table with merges");
    ForEachStorePeer(all);
  }
}

TEST(BenchTraceRun, RunsATraceThatWritesNothingOnce) {
  Trace trace = RandomTrace();
  trace.requests.resize(1);
  trace.requests[0].operation = Operation::kRead;
  ModelUnits model;
  EXPECT_EQ(0, RunTrace(trace, {}, kBatch, model).shown.extents());
}

TEST(BenchTraceRun, TellsApartWhatDiffersInAnyPart) {
  const auto shown = [](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff,
                        std::uint32_t object) {
    Shown one;
    one.Add(0, 1, 0, 1);
    one.Add(sOff, eOff, objOff, object);
    return one;
  };
  const Shown first = shown(1, 2, 3, 4);
  EXPECT_TRUE(first == shown(1, 2, 3, 4));
  EXPECT_FALSE(first == shown(0, 2, 3, 4));
  EXPECT_FALSE(first == shown(1, 3, 3, 4));
  EXPECT_FALSE(first == shown(1, 2, 4, 4));
  EXPECT_FALSE(first == shown(1, 2, 3, 5));
  EXPECT_FALSE(first == Shown());
}

}  // namespace
}  // namespace zefs_bench
