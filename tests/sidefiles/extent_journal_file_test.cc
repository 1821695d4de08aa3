// The bytes of the journal file, and files that are not as they should be.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sidefiles/extent_journal.h"
#include "tests/sidefiles/extent_journal_fixture.h"
#include "tests/sidefiles/formats_page.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;
using Aldenta::Qnd::Morene::Zefs::DecodeJournalRecord;

class ExtentJournalFileTest : public ExtentJournalFixture {
 protected:
  ExtentJournalFileTest() { fs::create_directory(Directory()); }

  /// What is read of a replay file with these bytes.
  std::vector<Extent> ReadBytes(const std::string& bytes) {
    WriteBytes(ReplayPath(), bytes);
    ExtentJournal journal(Path(), false);
    std::vector<Extent> out(3);
    EXPECT_EQ(0, journal.Read(&out));
    return out;
  }
};

/// The bytes of the records that a journal file of `bytes` holds: those that pass, cut ones with
/// zeros in place of what is missing. The padding of each is zero.
std::string PassingBytes(std::string bytes) {
  bytes.resize((bytes.size() + kJournalRecordSize - 1) / kJournalRecordSize * kJournalRecordSize);
  std::string passing;
  for (std::size_t at = 0; at < bytes.size(); at += kJournalRecordSize) {
    const auto* const record = reinterpret_cast<const unsigned char*>(bytes.data()) + at;
    const Extent extent = DecodeJournalRecord(record);
    if (extent.end != 0 && extent.start <= extent.end) {
      passing += Encoded(extent);
    }
  }
  return passing;
}

constexpr std::int64_t kMin = INT64_MIN;
constexpr std::int64_t kMax = INT64_MAX;

/// The example of docs/formats.md: an extent that overwrote another one, and one that did not.
void AddExample(ExtentJournal& journal) {
  std::array<unsigned char, 32> fp{};
  for (std::size_t i = 0; i < fp.size(); ++i) {
    fp.at(i) = static_cast<unsigned char>(0xa0 + i);
  }
  EXPECT_EQ(0, journal.Del(0x1000, 0x3000, 0x200, 0x41, fp, 0));
  EXPECT_EQ(0, journal.Add(0x1000, 0x3000, 0x200, 0x41, fp, 0));
  fp.fill(0xff);
  EXPECT_EQ(0, journal.Add(0x3000, 0x123456789abc, -1, 0xfedcba9876543210, fp, 0));
}

TEST_F(ExtentJournalFileTest, GoldenBytesOfARecord) {
  Extent record{};
  record.tag = 0x0807060504030201;
  record.start = 0x1817161514131211;
  record.end = 0x2827262524232221;
  record.offset = -2;
  record.dcid = 0xf8f7f6f5f4f3f2f1;
  for (std::size_t i = 0; i < record.fp.size(); ++i) {
    record.fp.at(i) = static_cast<unsigned char>(0x40 + i);
  }
  record.op = DEL;
  const std::string golden =
      "0102030405060708"
      "1112131415161718"
      "2122232425262728"
      "feffffffffffffff"
      "f1f2f3f4f5f6f7f8"
      "404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f"
      "01000000"
      "00000000";
  EXPECT_EQ(golden, HexOf(Encoded(record)));
  const std::string bytes = Encoded(record);
  const Extent decoded = DecodeJournalRecord(reinterpret_cast<const unsigned char*>(bytes.data()));
  EXPECT_EQ(golden, HexOf(Encoded(decoded)));
  EXPECT_EQ(record.tag, decoded.tag);
  EXPECT_EQ(record.start, decoded.start);
  EXPECT_EQ(record.end, decoded.end);
  EXPECT_EQ(record.offset, decoded.offset);
  EXPECT_EQ(record.dcid, decoded.dcid);
  EXPECT_EQ(record.fp, decoded.fp);
  EXPECT_EQ(record.op, decoded.op);
}

TEST_F(ExtentJournalFileTest, ThePaddingIsNeitherWrittenNorRead) {
  Extent record;
  std::memset(static_cast<void*>(&record), 0xee, sizeof(record));
  std::string bytes = Encoded(record);
  EXPECT_EQ(std::string(76, '\xee') + std::string(4, '\0'), bytes);
  bytes.replace(76, 4, "\xff\xff\xff\xff");
  const Extent decoded = DecodeJournalRecord(reinterpret_cast<const unsigned char*>(bytes.data()));
  EXPECT_EQ(Encoded(record), Encoded(decoded));
  std::string raw(sizeof(decoded), '\0');
  std::memcpy(raw.data(), &decoded, sizeof(decoded));
  EXPECT_EQ(std::string(4, '\0'), raw.substr(76)) << "a record in memory has no stray bytes either";
}

TEST_F(ExtentJournalFileTest, StrayBytesOfTheCallerDoNotReachTheFile) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  Extent record;
  std::memset(static_cast<void*>(&record), 0xee, sizeof(record));
  EXPECT_EQ(0, journal.Add(record, ADD, 0));
  EXPECT_EQ(0, journal.Flush(false));
  EXPECT_EQ(std::string(8, '\0') + std::string(64, '\xee') + std::string(8, '\0'), BytesOf(Path()));
  EXPECT_EQ(0, journal.Write({record}));
  EXPECT_EQ(std::string(76, '\xee') + std::string(4, '\0'), BytesOf(Path()).substr(80));
}

TEST_F(ExtentJournalFileTest, TheExampleOfTheFormatsPageIsWhatIsWritten) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddExample(journal);
  ASSERT_EQ(0, journal.Flush(true));
  EXPECT_EQ(HexOfThePage("## Extent journal"), HexOf(BytesOf(Path())));
}

TEST_F(ExtentJournalFileTest, AnEmptyFileHasNoRecordsAndNoSlots) {
  EXPECT_TRUE(ReadBytes("").empty());
  EXPECT_EQ((Log{{1, "Total extent in journal:0"}}), TakeLog());
}

TEST_F(ExtentJournalFileTest, OneRecordCountsAWholeChunkOfSlots) {
  EXPECT_EQ(EncodedMany(1), Encoded(ReadBytes(EncodedMany(1))));
  EXPECT_EQ((Log{{1, "Total extent in journal:32768"}}), TakeLog());
}

TEST_F(ExtentJournalFileTest, FilesAroundTheSizeOfAReadAreReadWhole) {
  const std::vector<std::pair<int, const char*>> rows = {
      {32767, "32768"}, {32768, "32768"}, {32769, "65536"}, {65536, "65536"}, {65537, "98304"}};
  for (const auto& [count, slots] : rows) {
    SCOPED_TRACE(count);
    const std::string bytes = EncodedMany(count);
    EXPECT_TRUE(bytes == Encoded(ReadBytes(bytes)));
    EXPECT_EQ((Log{{1, std::string("Total extent in journal:") + slots}}), TakeLog());
  }
}

TEST_F(ExtentJournalFileTest, OneTornByteBehindAFullChunkIsOneMoreChunk) {
  EXPECT_EQ(32768U, ReadBytes(EncodedMany(32768) + "x").size());
  EXPECT_EQ((Log{{1, "Total extent in journal:65536"}}), TakeLog());
}

TEST_F(ExtentJournalFileTest, AChunkLeavesNothingBehindForTheNextOne) {
  // The second chunk is one torn record: the rest of it must not be what the first one held there.
  const std::string first = EncodedMany(32768, 1);
  const std::vector<Extent> out = ReadBytes(first + first.substr(0, 24));
  ASSERT_EQ(32769U, out.size());
  EXPECT_EQ(first.substr(0, 24) + std::string(56, '\0'), Encoded(out.back()));
}

TEST_F(ExtentJournalFileTest, ReadsAskForAWholeChunk) {
  WriteBytes(ReplayPath(), EncodedMany(32769));
  ExtentJournal journal(Path(), false);
  std::vector<Extent> out;
  WatchCalls watch(dir_.path().string());
  EXPECT_EQ(0, journal.Read(&out));
  // One full chunk; the rest and the end of the file; the end of the file once more.
  EXPECT_EQ((std::vector<std::size_t>{2621440, 2621440, 2621360, 2621440}), Faults::ReadSizes());
  EXPECT_EQ(1, Faults::Count(Call::kClose));
}

TEST_F(ExtentJournalFileTest, OnlyTheEndAndTheStartAreValidated) {
  struct Row {
    const char* name;
    std::int64_t start, end;
    bool kept;
  };
  const std::vector<Row> rows = {{"an extent", 0, 1, true},
                                 {"no end", 0, 0, false},
                                 {"no end, below zero", -5, 0, false},
                                 {"start behind the end", 2, 1, false},
                                 {"start at the end", 7, 7, true},
                                 {"signed: below zero", -9, -8, true},
                                 {"signed: from below zero", -1, 1, true},
                                 {"signed: to below zero", 1, -1, false},
                                 {"whole range", kMin, kMax, true},
                                 {"whole range turned round", kMax, kMin, false},
                                 {"largest", kMax, kMax, true},
                                 {"smallest", kMin, kMin, true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Extent record{};
    record.start = row.start;
    record.end = row.end;
    const std::vector<Extent> out = ReadBytes(EncodedMany(1) + Encoded(record) + EncodedMany(1, 2));
    ASSERT_EQ(row.kept ? 3U : 2U, out.size());
    EXPECT_EQ(EncodedMany(1, 2), Encoded(out.back()));
    EXPECT_EQ(row.kept ? Encoded(record) : EncodedMany(1, 2), Encoded(out[1]));
  }
}

TEST_F(ExtentJournalFileTest, AnUnknownOpIsHandedOn) {
  Extent record = NthExtent(1);
  record.op = op_t{0xdeadbeef};
  record.tag = 12;
  const std::vector<Extent> out = ReadBytes(Encoded(record));
  ASSERT_EQ(1U, out.size());
  EXPECT_EQ(op_t{0xdeadbeef}, out[0].op);
  EXPECT_EQ(12U, out[0].tag);
}

TEST_F(ExtentJournalFileTest, AFileCutAnywhereReadsAsIfZerosFollowed) {
  std::string whole = EncodedMany(2);
  Extent last = NthExtent(2);
  last.start = 0x0101010101010101;
  last.end = 0x0202020202020202;
  last.op = DEL;
  whole += Encoded(last);
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    SCOPED_TRACE(size);
    EXPECT_EQ(PassingBytes(whole.substr(0, size)), Encoded(ReadBytes(whole.substr(0, size))));
  }
}

TEST_F(ExtentJournalFileTest, AJournalCutAnywhereIsHandedBackWhateverReplayFileLiesBesideIt) {
  const std::string whole = EncodedMany(2, 300);
  const std::vector<std::string> stale = {"", EncodedMany(1, 7), EncodedMany(5, 7), "x"};
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    SCOPED_TRACE(size);
    WriteBytes(Path(), whole.substr(0, size));
    WriteBytes(ReplayPath(), stale.at(size % stale.size()));
    ExtentJournal journal(Path(), false);
    ASSERT_EQ(0, journal.Start());
    std::vector<Extent> out;
    EXPECT_EQ(0, journal.Get(&out));
    EXPECT_EQ(PassingBytes(whole.substr(0, size)), Encoded(out));
    EXPECT_EQ("", BytesOf(Path()));
    EXPECT_FALSE(HasReplayFile());
  }
}

TEST_F(ExtentJournalFileTest, RecordsBehindAPieceOfARecordAreMisreadWithoutHarm) {
  const std::string whole = EncodedMany(2, 300);
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    SCOPED_TRACE(size);
    WriteBytes(Path(), whole.substr(0, size));
    ExtentJournal journal(Path(), false);
    ASSERT_EQ(0, journal.Start());
    EXPECT_EQ(0, AddMany(journal, 2, 40));
    std::vector<Extent> out;
    EXPECT_EQ(0, journal.Get(&out));
    EXPECT_EQ(PassingBytes(whole.substr(0, size) + EncodedMany(2, 40)), Encoded(out));
  }
}

TEST_F(ExtentJournalFileTest, ATornLastRecordIsDroppedOrBecomesAnAdd) {
  Extent del = NthExtent(1);
  del.start = 0x1000;
  del.end = 0x2030;
  del.op = DEL;
  const std::string bytes = Encoded(del);
  EXPECT_TRUE(ReadBytes(bytes.substr(0, 16)).empty()) << "the end is lost";
  EXPECT_TRUE(ReadBytes(bytes.substr(0, 17)).empty()) << "0x30 is left of it, below the start";
  const std::vector<Extent> withEnd = ReadBytes(bytes.substr(0, 18));
  ASSERT_EQ(1U, withEnd.size());
  EXPECT_EQ(0x2030, withEnd[0].end);
  EXPECT_EQ(0U, withEnd[0].dcid);
  const std::vector<Extent> withoutOp = ReadBytes(bytes.substr(0, 72));
  ASSERT_EQ(1U, withoutOp.size());
  EXPECT_EQ(del.fp, withoutOp[0].fp);
  EXPECT_EQ(ADD, withoutOp[0].op);
}

TEST_F(ExtentJournalFileTest, GarbageIsReadWithoutHarm) {
  std::string bytes(12345, '\0');
  unsigned value = 1;
  for (char& c : bytes) {
    value = value * 1103515245U + 12345U;
    c = static_cast<char>(value >> 16U);
  }
  for (const Extent& record : ReadBytes(bytes)) {
    EXPECT_TRUE(record.end != 0 && record.start <= record.end);
  }
}

TEST_F(ExtentJournalFileTest, AReplayFileThatIsADirectoryHasNoRecords) {
  fs::create_directory(ReplayPath());
  ExtentJournal journal(Path(), false);
  std::vector<Extent> out(3);
  EXPECT_EQ(0, journal.Read(&out)) << "it opens, and each read fails";
  EXPECT_TRUE(out.empty());
  EXPECT_EQ((Log{{1, "Total extent in journal:0"}}), TakeLog());
}

TEST_F(ExtentJournalFileTest, AMissingReplayFileIsAFailure) {
  ExtentJournal journal(Path(), false);
  std::vector<Extent> out(3);
  EXPECT_EQ(-1, journal.Read(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ((Log{{8, "failed to open extent journal, path=" + ReplayPath() +
                         ", ret=" + std::to_string(ENOENT)}}),
            TakeLog());
}

}  // namespace
