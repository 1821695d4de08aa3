#include "refhost/prefetch/read_record.h"

#include <fcntl.h>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "refhost/store/file_handle.h"
#include "tests/support/temp_dir.h"

namespace zefs::refhost {
namespace {

std::string TextOf(const ReadAheadFigures& figures) {
  return std::to_string(figures.plans) + " " + std::to_string(figures.containers) + " " +
         std::to_string(figures.fetchedBytes) + " " + std::to_string(figures.hits) + " " +
         std::to_string(figures.misses);
}

class ReadRecordTest : public ::testing::Test {
 protected:
  void WriteText(const std::string& text) {
    FileHandle::Open(path, O_WRONLY | O_CREAT | O_TRUNC).WriteAt(0, text);
  }

  const test::TempDir dir;
  const std::string path = (dir / "reads").string();
  const ReadRecord record{path};
};

TEST_F(ReadRecordTest, FiguresOfRunsAddUp) {
  EXPECT_EQ("0 0 0 0 0", TextOf(record.Load())) << "no file yet";
  record.Add({1, 2, 3, 4, 5});
  record.Add({10, 20, 30, 40, 50});
  EXPECT_EQ("11 22 33 44 55", TextOf(record.Load()));
  EXPECT_EQ("11 22 33 44 55", TextOf(ReadRecord(path).Load()));
  EXPECT_FALSE(boost::filesystem::exists(path + ".new"));
}

TEST_F(ReadRecordTest, FileThatCannotBeUnderstoodCountsAsNone) {
  for (const char* const text :
       {"", "plans 1\n", "plans 1\ncontainers x\nfetched_bytes 3\nhits 4\nmisses 5\n",
        "hits 1\ncontainers 2\nfetched_bytes 3\nplans 4\nmisses 5\n"}) {
    WriteText(text);
    EXPECT_EQ("0 0 0 0 0", TextOf(record.Load())) << text;
  }
  record.Add({1, 2, 3, 4, 5});
  EXPECT_EQ("1 2 3 4 5", TextOf(record.Load())) << "and is replaced";
}

TEST_F(ReadRecordTest, FailureIsLoggedAndLeavesTheRecord) {
  record.Add({1, 2, 3, 4, 5});
  boost::filesystem::create_directory(path + ".new");
  LogRecorder log(kLogRecoverable);
  record.Add({1, 1, 1, 1, 1});
  EXPECT_THAT(log.Take(),
              ::testing::ElementsAre(LogRecord{
                  kLogRecoverable, "cannot create " + path + ".new: Is a directory (EISDIR)"}));
  EXPECT_EQ("1 2 3 4 5", TextOf(record.Load()));
}

}  // namespace
}  // namespace zefs::refhost
