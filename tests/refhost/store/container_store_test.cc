#include "refhost/store/container_store.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/support/child_process.h"

namespace zefs::refhost {
namespace {

using test::TempDir;
using test::ThrownText;
using ::testing::HasSubstr;

std::string ReadBack(const ContainerStore& store, const Location& where) {
  std::string bytes(where.length, '?');
  store.Read(where, 0, where.length, bytes.data());
  return bytes;
}

TEST(ContainerStore, FirstContainerHasTheFirstIdThatNamesOne) {
  const TempDir dir;
  ContainerStore store(dir.path().string());
  const Location where = store.Append("abc");
  EXPECT_EQ(64U, where.dcid);
  EXPECT_EQ(0U, where.offset);
  EXPECT_EQ(3U, where.length);
  EXPECT_TRUE(boost::filesystem::exists(dir / "64"));
}

TEST(ContainerStore, RollsOverWhenTheNextObjectDoesNotFit) {
  const TempDir dir;
  ContainerStore store(dir.path().string(), 10);
  const Location first = store.Append("12345");
  const Location fits = store.Append("67890");
  const Location next = store.Append("x");
  EXPECT_EQ(64U, fits.dcid);
  EXPECT_EQ(5U, fits.offset);
  EXPECT_EQ(65U, next.dcid);
  EXPECT_EQ(0U, next.offset);
  EXPECT_EQ("12345", ReadBack(store, first));
  EXPECT_EQ("67890", ReadBack(store, fits));
  EXPECT_EQ("x", ReadBack(store, next));
  EXPECT_EQ(2U, store.containers());
  EXPECT_EQ(11U, store.storedBytes());
}

TEST(ContainerStore, ObjectLargerThanAContainerGetsItsOwn) {
  const TempDir dir;
  ContainerStore store(dir.path().string(), 4);
  EXPECT_EQ(64U, store.Append("ab").dcid);
  const Location large = store.Append("123456789");
  EXPECT_EQ(65U, large.dcid);
  EXPECT_EQ(66U, store.Append("c").dcid);
  EXPECT_EQ("123456789", ReadBack(store, large));
}

TEST(ContainerStore, ReadsAPartOfAnObject) {
  const TempDir dir;
  ContainerStore store(dir.path().string());
  store.Append("xx");
  const Location where = store.Append("0123456789");
  std::string part(3, '?');
  store.Read(where, 4, 3, part.data());
  EXPECT_EQ("456", part);
}

TEST(ContainerStore, ReadsFromMoreContainersThanItKeepsOpen) {
  const TempDir dir;
  ContainerStore store(dir.path().string(), 1);
  std::vector<Location> places;
  for (int i = 0; i < 200; ++i) {
    places.push_back(store.Append(std::to_string(i)));
  }
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 200; ++i) {
      EXPECT_EQ(std::to_string(i), ReadBack(store, places[static_cast<std::size_t>(i)]));
    }
  }
}

TEST(ContainerStore, GoesOnBehindTheHighestIdFound) {
  const TempDir dir;
  test::WriteFile(dir / "70", "old");
  test::WriteFile(dir / "9x", "no id");
  test::WriteFile(dir / "notes", "no id");
  ContainerStore store(dir.path().string());
  EXPECT_EQ(71U, store.Append("new").dcid);
  EXPECT_EQ(3U, boost::filesystem::file_size(dir / "70"));
}

TEST(ContainerStore, OffsetsOfAContainerStayWithinASignedInt) {
  const TempDir dir;
  EXPECT_THROW(ContainerStore(dir.path().string(), 0), std::invalid_argument);
  EXPECT_THROW(ContainerStore(dir.path().string(), 0x80000000U), std::invalid_argument);
  EXPECT_NO_THROW(ContainerStore(dir.path().string(), 0x7fffffffU));
}

TEST(ContainerStore, ContainerThatWasCutIsDamage) {
  const TempDir dir;
  ContainerStore store(dir.path().string());
  const Location where = store.Append("0123456789");
  boost::filesystem::resize_file(dir / "64", 9);
  EXPECT_EQ("container " + (dir / "64").string() + " ends before offset 10",
            ThrownText<DamageError>([&] { ReadBack(store, where); }));
}

TEST(ContainerStore, LostContainerIsNamed) {
  const TempDir dir;
  ContainerStore store(dir.path().string(), 1);
  const Location where = store.Append("a");
  store.Append("b");
  boost::filesystem::remove(dir / "64");
  EXPECT_EQ("container " + (dir / "64").string() + " is gone",
            ThrownText<DamageError>([&] { ReadBack(store, where); }));
}

TEST(ContainerStore, MissingOrWrongDirectoryIsNamed) {
  const TempDir dir;
  EXPECT_EQ("cannot list " + (dir / "gone").string() + ": No such file or directory (ENOENT)",
            ThrownText<StoreError>([&] { ContainerStore((dir / "gone").string()); }));
  test::WriteFile(dir / "file", "");
  EXPECT_EQ("cannot list " + (dir / "file").string() + ": Not a directory (ENOTDIR)",
            ThrownText<StoreError>([&] { ContainerStore((dir / "file").string()); }));
}

TEST(ContainerStore, DirectoryThatVanishesFailsTheAppendOnly) {
  const TempDir dir;
  boost::filesystem::create_directory(dir / "c");
  ContainerStore store((dir / "c").string(), 1);
  const Location before = store.Append("a");
  boost::filesystem::rename(dir / "c", dir / "away");
  EXPECT_THAT(ThrownText<StoreError>([&] { store.Append("b"); }), HasSubstr("cannot create "));
  EXPECT_EQ("a", ReadBack(store, before)) << "the container that was written is still open";
  boost::filesystem::rename(dir / "away", dir / "c");
  EXPECT_EQ("b", ReadBack(store, store.Append("b")));
}

TEST(FileHandle, FullDeviceIsNamed) {
  FileHandle full = FileHandle::Open("/dev/full", O_RDWR);
  EXPECT_EQ("cannot write /dev/full: No space left on device (ENOSPC)",
            ThrownText<StoreError>([&] { full.WriteAt(0, "x"); }));
}

TEST(FileHandle, WrongDescriptorModeIsNamed) {
  const TempDir dir;
  test::WriteFile(dir / "f", "abc");
  FileHandle file = FileHandle::Open((dir / "f").string(), O_RDONLY);
  EXPECT_THAT(ThrownText<StoreError>([&] { file.WriteAt(0, "x"); }), HasSubstr("(EBADF)"));
  EXPECT_THAT(ThrownText<StoreError>([&] { file.Resize(1); }), HasSubstr("cannot resize "));
}

TEST(StoreError, UnknownCodeIsTold) {
  EXPECT_EQ("error 12345", ReasonOf(12345));
}

/// In a child, because the limit of the file size cannot be raised again.
int FillUpToTheLimit(const std::string& directory) {
  std::signal(SIGXFSZ, SIG_IGN);
  ContainerStore store(directory, 4096);
  const Location before = store.Append(std::string(1000, 'a'));
  rlimit limit{};
  limit.rlim_cur = 1500;
  limit.rlim_max = RLIM_INFINITY;
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
    return 2;
  }
  const std::string text = ThrownText<StoreError>([&] { store.Append(std::string(1000, 'b')); });
  if (text != "cannot write " + directory + "/64: File too large (EFBIG)") {
    return 3;
  }
  if (ReadBack(store, before) != std::string(1000, 'a')) {
    return 4;
  }
  limit.rlim_cur = RLIM_INFINITY;
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
    return 5;
  }
  const Location again = store.Append(std::string(1000, 'c'));
  const bool whole = again.offset == 1000 && ReadBack(store, again) == std::string(1000, 'c');
  return whole && store.storedBytes() == 2000 ? 0 : 6;
}

TEST(ContainerStore, AppendThatBreaksOffInTheMiddleCanBeRepeated) {
  const TempDir dir;
  EXPECT_TRUE(test::EndedWell(
      test::RunInChild([&] { EXPECT_EQ(0, FillUpToTheLimit(dir.path().string())); })));
}

TEST(ContainerStore, SizesAreThoseOfTheFiles) {
  const TempDir dir;
  ContainerStore store(dir.path().string(), 10);
  EXPECT_TRUE(store.Sizes().empty());
  store.Append("1234567");
  store.Append("12345");
  test::WriteFile(dir / "no number", "x");
  const std::map<std::uint64_t, std::uint64_t> expected = {{64, 7}, {65, 5}};
  EXPECT_EQ(expected, store.Sizes());
}

TEST(ContainerStore, RemovedContainersAreGoneButTheOneThatIsWritten) {
  const TempDir dir;
  ContainerStore store(dir.path().string(), 4);
  EXPECT_FALSE(store.writing().has_value());
  const Location first = store.Append("1234");
  const Location last = store.Append("5678");
  EXPECT_EQ("1234", ReadBack(store, first)) << "and the container stays open for reading";
  EXPECT_EQ(65U, store.writing());
  store.Remove({64, 65, 77});
  EXPECT_EQ("container " + (dir / "64").string() + " is gone",
            ThrownText<DamageError>([&] { ReadBack(store, first); }));
  EXPECT_EQ("5678", ReadBack(store, last));
  store.Sync();
}

TEST(ContainerStore, AnotherContainerIsBegunWhenItIsAskedFor) {
  const TempDir dir;
  ContainerStore store(dir.path().string());
  const Location before = store.Append("abc");
  store.BeginAnother();
  EXPECT_FALSE(store.writing().has_value());
  const Location after = store.Append("def");
  EXPECT_EQ(65U, after.dcid);
  EXPECT_EQ(0U, after.offset);
  EXPECT_EQ("abc", ReadBack(store, before));
  store.Sync();
}

}  // namespace
}  // namespace zefs::refhost
