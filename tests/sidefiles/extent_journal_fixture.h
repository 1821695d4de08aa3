#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "sidefiles/extent_journal.h"
#include "tests/support/fault_injection.h"
#include "tests/support/file_bytes.h"
#include "tests/support/temp_dir.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// What no operation of the journal tells.
struct ExtentJournalTestPeer {
  static bool Started(const ExtentJournal& journal) { return journal.started_; }
  static bool Opened(const ExtentJournal& journal) { return journal.opened_; }
  static int Descriptor(const ExtentJournal& journal) { return journal.fd_; }
  static std::size_t Buffered(const ExtentJournal& journal) { return journal.buffer_.size(); }
  static std::mutex& Mutex(ExtentJournal& journal) { return journal.mutex_; }
  static const std::string& ReplayPath(const ExtentJournal& journal) { return journal.replayPath_; }
};

}  // namespace Aldenta::Qnd::Morene::Zefs

namespace zefs::test {

using Aldenta::Qnd::Morene::Zefs::ADD;
using Aldenta::Qnd::Morene::Zefs::DEL;
using Aldenta::Qnd::Morene::Zefs::EncodeJournalRecord;
using Aldenta::Qnd::Morene::Zefs::Extent;
using Aldenta::Qnd::Morene::Zefs::ExtentJournal;
using Aldenta::Qnd::Morene::Zefs::ExtentJournalTestPeer;
using Aldenta::Qnd::Morene::Zefs::kJournalRecordSize;
using Aldenta::Qnd::Morene::Zefs::op_t;
using zefs::refhost::LogRecord;
using zefs::refhost::LogRecorder;

inline constexpr int kLimit = 16384;  ///< records that fill the buffer

inline void PrintTo(const LogRecord& record, std::ostream* out) {
  *out << record.level << " " << record.text;
}

/// A distinct extent for each number from 0 on.
inline Extent NthExtent(int number) {
  Extent extent{};
  extent.start = number * std::int64_t{4096};
  extent.end = extent.start + 4096;
  extent.offset = number % 7;
  extent.dcid = 64U + static_cast<unsigned>(number % 5);
  for (std::size_t i = 0; i < extent.fp.size(); ++i) {
    extent.fp.at(i) = static_cast<unsigned char>(static_cast<std::size_t>(number) + i);
  }
  return extent;
}

/// The bytes of a record as they are to lie in a file.
inline std::string Encoded(const Extent& record) {
  std::string bytes(kJournalRecordSize, '\0');
  EncodeJournalRecord(record, reinterpret_cast<unsigned char*>(bytes.data()));
  return bytes;
}

inline std::string Encoded(const std::vector<Extent>& records) {
  std::string bytes;
  for (const Extent& record : records) {
    bytes += Encoded(record);
  }
  return bytes;
}

/// kOpened is between two calls of a start only: open, but not started.
enum class State { kIdle, kOpened, kRunning, kStopped };

inline State StateOf(const ExtentJournal& journal, bool hasFile) {
  EXPECT_EQ(ExtentJournalTestPeer::Opened(journal),
            ExtentJournalTestPeer::Descriptor(journal) >= 0);
  if (ExtentJournalTestPeer::Opened(journal)) {
    return ExtentJournalTestPeer::Started(journal) ? State::kRunning : State::kOpened;
  }
  EXPECT_FALSE(ExtentJournalTestPeer::Started(journal));
  return hasFile ? State::kStopped : State::kIdle;
}

class ExtentJournalFixture : public testing::Test {
 protected:
  boost::filesystem::path Directory() const { return dir_ / "table"; }
  std::string Path() const { return (Directory() / "t1journal").string(); }
  std::string ReplayPath() const { return Path() + ".rep"; }
  bool HasFile() const { return boost::filesystem::exists(Path()); }
  bool HasReplayFile() const { return boost::filesystem::exists(ReplayPath()); }
  static std::size_t Buffered(const ExtentJournal& journal) {
    return ExtentJournalTestPeer::Buffered(journal);
  }

  /// Adds the extents first, first + 1, ... with op ADD; the last result.
  static int AddMany(ExtentJournal& journal, int count, int first = 0) {
    int ret = 0;
    for (int i = first; i < first + count; ++i) {
      ret = journal.Add(NthExtent(i), ADD, 0);
    }
    return ret;
  }

  static std::string EncodedMany(int count, int first = 0) {
    std::string bytes;
    for (int i = first; i < first + count; ++i) {
      bytes += Encoded(NthExtent(i));
    }
    return bytes;
  }

  /// The lines since the last time from `minimum` up.
  std::vector<LogRecord> TakeLog(int minimum = 0) {
    std::vector<LogRecord> lines;
    for (LogRecord& line : log_.Take()) {
      if (line.level >= minimum) {
        lines.push_back(std::move(line));
      }
    }
    return lines;
  }

  TempDir dir_;
  LogRecorder log_;
};

using Log = std::vector<LogRecord>;

}  // namespace zefs::test
