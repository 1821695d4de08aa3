// The record of a run accounts for every byte and every name that the run leaves.

#include "tests/system/power_cut/disk_recorder.h"

#include <array>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include "tests/support/file_bytes.h"
#include "tests/support/temp_dir.h"
#include "tests/system/power_cut/model_disk.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

class DiskRecorderTest : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  int Open(const std::string& name, int flags = O_RDWR | O_CREAT) const {
    return ::open64(Path(name).c_str(), flags, 0600);
  }

  /// The disk after the recorded calls, which must look like the real one.
  ModelDisk Replayed(const DiskImage& before) const {
    ModelDisk disk(before, Names::kInOrder);
    for (const DiskEvent& event : DiskRecorder::End()) {
      disk.Apply(event);
    }
    EXPECT_TRUE(ImageOf(dir_.path()) == disk.Now());
    return disk;
  }

  /// Begins the record over the files that are there.
  DiskImage Begin() const {
    DiskRecorder::Begin(dir_.path().string());
    return ImageOf(dir_.path());
  }

  const TempDir dir_;
};

TEST_F(DiskRecorderTest, SeesEveryKindOfWrite) {
  WriteBytes(dir_ / "there", "0123456789");
  const DiskImage before = Begin();
  const int fd = Open("made");
  EXPECT_EQ(3, ::write(fd, "abc", 3));
  EXPECT_EQ(2, ::write(fd, "de", 2));
  EXPECT_EQ(4, ::pwrite(fd, "PWRI", 4, 600));
  std::array<char, 3> bytes = {'x', 'y', 'z'};
  const std::array<iovec, 2> parts = {iovec{bytes.data(), 1}, iovec{bytes.data() + 1, 2}};
  EXPECT_EQ(3, ::writev(fd, parts.data(), 2)) << "behind what write has written";
  EXPECT_EQ(3, ::pwritev(fd, parts.data(), 2, 100));
  EXPECT_EQ(0, ::ftruncate(fd, 700));
  ::close(fd);
  const int behind = Open("there", O_WRONLY | O_APPEND);
  EXPECT_EQ(3, ::write(behind, "end", 3));
  ::close(behind);
  EXPECT_EQ(0, ::truncate(Path("there").c_str(), 12));
  ::close(::creat(Path("emptied").c_str(), 0600));
  const int emptied = Open("emptied", O_WRONLY | O_TRUNC);
  EXPECT_EQ(1, ::write(emptied, "1", 1));
  ::close(emptied);
  Replayed(before);
  EXPECT_EQ("0123456789en", BytesOf(dir_ / "there"));
  EXPECT_EQ("abcdexyz", BytesOf(dir_ / "made").substr(0, 8));
}

TEST_F(DiskRecorderTest, SeesCopiesInsideTheKernel) {
  WriteBytes(dir_ / "from", std::string(5000, 'f'));
  const DiskImage before = Begin();
  fs::copy(dir_ / "from", dir_ / "copied");
  const int from = Open("from", O_RDONLY);
  const int to = Open("sent");
  ::lseek(from, 10, SEEK_SET);
  EXPECT_EQ(100, ::sendfile(to, from, nullptr, 100));
  ::close(from);
  ::close(to);
  Replayed(before);
  EXPECT_EQ(std::string(5000, 'f'), BytesOf(dir_ / "copied"));
}

TEST_F(DiskRecorderTest, SeesEveryChangeOfNames) {
  WriteBytes(dir_ / "old", "o");
  const DiskImage before = Begin();
  EXPECT_EQ(0, ::mkdir(Path("d").c_str(), 0700));
  EXPECT_EQ(0, ::mkdir(Path("d/e").c_str(), 0700));
  ::close(Open("d/e/file"));
  EXPECT_EQ(0, ::rename(Path("old").c_str(), Path("d/e/new").c_str()));
  EXPECT_EQ(0, ::rename(Path("d/e").c_str(), Path("e").c_str()));
  EXPECT_EQ(0, ::rmdir(Path("d").c_str()));
  EXPECT_EQ(0, ::unlink(Path("e/file").c_str()));
  EXPECT_NE(0, ::unlink(Path("e/none").c_str())) << "what fails changes nothing";
  Replayed(before);
  EXPECT_EQ("o", BytesOf(dir_ / "e/new"));
}

TEST_F(DiskRecorderTest, LeavesOtherDirectoriesAndReadersAlone) {
  const TempDir other;
  WriteBytes(dir_ / "file", "f");
  Begin();
  ::close(::open64((other / "x").string().c_str(), O_WRONLY | O_CREAT, 0600));
  EXPECT_EQ(0, ::mkdir((dir_.path().string() + "-beside").c_str(), 0700));
  EXPECT_EQ(0, ::rmdir((dir_.path().string() + "-beside").c_str()));
  EXPECT_EQ("f", BytesOf(dir_ / "file"));
  for (const DiskEvent& event : DiskRecorder::End()) {
    ADD_FAILURE() << event.kind << ' ' << event.path;
  }
}

TEST_F(DiskRecorderTest, TellsSyncsAndWritesThatSync) {
  Begin();
  const int fd = Open("file", O_WRONLY | O_CREAT | O_DSYNC);
  EXPECT_EQ(1, ::write(fd, "1", 1));
  EXPECT_EQ(0, ::fsync(fd));
  EXPECT_EQ(0, ::fdatasync(fd));
  ::close(fd);
  EXPECT_EQ(-1, ::fsync(fd));
  DiskRecorder::Mark("end");
  std::vector<int> kinds;
  for (const DiskEvent& event : DiskRecorder::End()) {
    kinds.push_back(event.kind);
  }
  EXPECT_EQ(
      (std::vector<int>{DiskEvent::kOpen, DiskEvent::kWrite, DiskEvent::kSyncWrite,
                        DiskEvent::kSync, DiskEvent::kSync, DiskEvent::kClose, DiskEvent::kMark}),
      kinds);
}

TEST_F(DiskRecorderTest, ARecordGoesThroughAFile) {
  const std::vector<DiskEvent> events = {
      {DiskEvent::kOpen, 3, O_CREAT, 0, "a", ""},
      {DiskEvent::kWrite, 3, 0, 5000, "", std::string("x\0y", 3)},
      {DiskEvent::kRename, -1, 0, 0, "a", "b"}};
  DiskRecorder::Save(events, Path("log"));
  const std::vector<DiskEvent> read = DiskRecorder::Saved(Path("log"));
  ASSERT_EQ(events.size(), read.size());
  for (std::size_t i = 0; i < events.size(); ++i) {
    EXPECT_EQ(events[i].kind, read[i].kind);
    EXPECT_EQ(events[i].fd, read[i].fd);
    EXPECT_EQ(events[i].flags, read[i].flags);
    EXPECT_EQ(events[i].offset, read[i].offset);
    EXPECT_EQ(events[i].path, read[i].path);
    EXPECT_EQ(events[i].bytes, read[i].bytes);
  }
}

TEST_F(DiskRecorderTest, ARecordThatIsNotWholeIsRefused) {
  ModelDisk disk({}, Names::kInOrder);
  EXPECT_THROW(disk.Apply({DiskEvent::kWrite, 7, 0, 0, "", "x"}), std::runtime_error);
  EXPECT_THROW(disk.Apply({DiskEvent::kUnlink, -1, 0, 0, "none", ""}), std::runtime_error);
  EXPECT_THROW(disk.Apply({DiskEvent::kOpen, 7, O_CREAT, 0, "no/file", ""}), std::runtime_error);
}

}  // namespace
}  // namespace zefs::test
