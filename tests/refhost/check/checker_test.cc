#include "refhost/check/checker.h"

#include <cerrno>
#include <limits>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "refhost/check/change_plan.h"
#include "refhost/check/plain_copies.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/check/told_size.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/support/ordinary_user.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::TempDir;
using test::ThrownText;

/// A small tree: an empty file, a short one, one of many segments and a copy of that; tables in
/// memory.
class Checker : public ::testing::Test {
 protected:
  Checker() {
    fs::create_directories(dir / "tree/sub");
    std::string large(50000, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) {
      large[i] = static_cast<char>(i * i / 97 + i / 512);
    }
    test::WriteFile(dir / "tree/empty", "");
    test::WriteFile(dir / "tree/short", "hello");
    test::WriteFile(dir / "tree/large", large);
    test::WriteFile(dir / "tree/sub/copy", large);
    options.paths = {(dir / "tree").string()};
    options.storeDirectory = (dir / "store").string();
    options.segmentSize = 512;
    options.containerBytes = 8192;
    options.tables = TableKind::kMemory;
  }

  /// Files come in the order of their paths, so this is the number of tree/large.
  static constexpr Files::FileId kLarge = 1;

  CheckResult RunWith(const BeforeVerify& plant) { return RunCheck(options, {}, plant); }

  TempDir dir;
  CheckOptions options;
};

TEST_F(Checker, FindsEverythingEqualAndCounts) {
  const CheckResult result = RunCheck(options);
  EXPECT_FALSE(result.difference.has_value());
  EXPECT_EQ(4U, result.files);
  EXPECT_EQ(100005U, result.sourceBytes);
  EXPECT_EQ(50005U, result.storedSourceBytes) << "the copy is deduplicated";
  EXPECT_EQ(result.store.bytes, result.sourceBytes);
  EXPECT_EQ(result.writtenBytes, result.store.bytes + result.change.bytes);
  EXPECT_EQ(result.verify.bytes, result.logicalBytes);
  EXPECT_GT(result.change.bytes, 0U);
  EXPECT_LE(result.storedBytes, result.writtenBytes);
  EXPECT_GE(result.containersWritten, result.containersReferenced);
  EXPECT_GE(result.containersReferenced, 50005U / 8192U);
  EXPECT_GE(result.extents, 2 * (50000U / 2 / 512U)) << "a cut leaves half of a file at least";
  EXPECT_GT(result.fingerprintsReferenced, 50U);
  EXPECT_FALSE(fs::exists(dir / "store"));
}

TEST_F(Checker, SameSeedGivesTheSameStore) {
  const CheckResult first = RunCheck(options);
  const CheckResult second = RunCheck(options);
  EXPECT_EQ(first.logicalBytes, second.logicalBytes);
  EXPECT_EQ(first.writtenBytes, second.writtenBytes);
  EXPECT_EQ(first.storedBytes, second.storedBytes);
  EXPECT_EQ(first.extents, second.extents);
  options.seed = 2;
  EXPECT_NE(first.writtenBytes, RunCheck(options).writtenBytes);
}

TEST_F(Checker, EverySegmentSizeGivesTheSameFiles) {
  for (const std::uint64_t size : {1024U, 16384U, 1048576U}) {
    options.segmentSize = size;
    const CheckResult result = RunCheck(options);
    EXPECT_FALSE(result.difference.has_value()) << size;
    EXPECT_EQ(4U, result.files);
  }
}

TEST_F(Checker, KeptStoreHasContainersAndCopies) {
  options.keep = true;
  const CheckResult result = RunCheck(options);
  EXPECT_EQ((dir / "store").string(), result.storePath);
  EXPECT_TRUE(fs::exists(dir / "store/containers/64"));
  EXPECT_TRUE(fs::exists(dir / "store/copies"));
}

TEST_F(Checker, WrongByteIsFoundWhereItIs) {
  const CheckResult result = RunWith([](Files* store) {
    char byte = 0;
    store->Read(kLarge, 12345, &byte, 1);
    byte = static_cast<char>(byte ^ 1);
    store->Write(kLarge, 12345, std::string_view(&byte, 1));
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ((dir / "tree/large").string(), result.difference->path);
  EXPECT_EQ(12345, result.difference->offset);
  EXPECT_FALSE(fs::exists(dir / "store")) << "a difference is no reason to leave the store behind";
}

TEST_F(Checker, LostExtentIsFoundAtItsStart) {
  const CheckResult result = RunWith([](Files* store) {
    store->Truncate(kLarge, 20000);
    store->Write(kLarge, 20100, std::string(100, 'x'));
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ((dir / "tree/large").string(), result.difference->path);
  EXPECT_GE(result.difference->offset, 20000);
  EXPECT_LE(result.difference->offset, 20200);
}

TEST_F(Checker, MissingTailIsFoundAtTheEndOfWhatIsThere) {
  std::int64_t size = 0;
  const CheckResult result = RunWith([&size](Files* store) {
    size = store->SizeOf(kLarge);
    store->Truncate(kLarge, size - 1);
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ(size - 1, result.difference->offset);
  EXPECT_EQ("the stored file ends at another place", result.difference->text);
}

TEST_F(Checker, BytesTooManyAreFoundEvenWhereTheyAreZeros) {
  std::int64_t size = 0;
  const CheckResult result = RunWith([&size](Files* store) {
    size = store->SizeOf(kLarge);
    store->Truncate(kLarge, size + 1);
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ(size, result.difference->offset);
}

TEST_F(Checker, WrongReferenceIsFound) {
  const CheckResult result = RunWith([](Files* store) {
    FingerprintText text{};
    text.fill('0');
    text.back() = '\0';
    store->WithTable(kLarge, [&](MappingTable& table) { table.InnerAddReference(9999, text, 1); });
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ((dir / "tree/large").string(), result.difference->path);
  EXPECT_EQ("the table references 1 bytes of container 9999, a recount gives no more",
            result.difference->text);
}

TEST_F(Checker, ObjectThatIsNotStoredIsADifferenceWithItsOffset) {
  const CheckResult result = RunWith([](Files* store) {
    DataCacheNode::ObjectID unknown;
    unknown.dcid = 64;
    unknown.fp.fill(1);
    store->WithTable(kLarge, [&](MappingTable& table) {
      table.insert(600, 700, &unknown, 0, 0, nullptr, -1, nullptr);
    });
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ((dir / "tree/large").string(), result.difference->path);
  EXPECT_NE(std::string::npos, result.difference->text.find("extent [600, 700): object 0101"));
}

TEST_F(Checker, FileThatMayNotBeReadIsSkipped) {
  fs::permissions(dir / "tree/large", fs::no_perms);
  options.storeDirectory.clear();
  const test::AsOrdinaryUser user;
  const CheckResult result = RunCheck(options);
  EXPECT_FALSE(result.difference.has_value());
  EXPECT_EQ(3U, result.files);
  ASSERT_EQ(1U, result.skipped.size());
  EXPECT_EQ((dir / "tree/large").string(), result.skipped[0].path);
  EXPECT_EQ("Permission denied (EACCES)", result.skipped[0].reason);
}

TEST_F(Checker, OnlyUnreadableFilesCannotRun) {
  fs::permissions(dir / "tree/large", fs::no_perms);
  options.paths = {(dir / "tree/large").string()};
  options.storeDirectory.clear();
  const test::AsOrdinaryUser user;
  EXPECT_EQ("no readable file among the 1 found, 1 skipped, 0 passed over as not regular",
            ThrownText<StoreError>([&] { RunCheck(options); }));
}

TEST_F(Checker, FileThatVanishesAfterItWasListedIsSkipped) {
  bool removed = false;
  const auto remove = [&](std::string_view, std::uint64_t, std::uint64_t) {
    if (!removed) {
      removed = fs::remove(dir / "tree/sub/copy");
    }
  };
  const CheckResult result = RunCheck(options, remove);
  EXPECT_FALSE(result.difference.has_value());
  EXPECT_EQ(3U, result.files);
  ASSERT_EQ(1U, result.skipped.size());
  EXPECT_EQ((dir / "tree/sub/copy").string(), result.skipped[0].path);
  EXPECT_EQ("No such file or directory (ENOENT)", result.skipped[0].reason);
}

TEST_F(Checker, FileThatBecameALinkOrADirectoryIsSkipped) {
  bool replaced = false;
  const auto replace = [&](std::string_view, std::uint64_t, std::uint64_t) {
    if (!replaced) {
      replaced = fs::remove(dir / "tree/sub/copy") && fs::remove(dir / "tree/short");
      fs::create_symlink(dir / "tree/large", dir / "tree/sub/copy");
      fs::create_directory(dir / "tree/short");
    }
  };
  const CheckResult result = RunCheck(options, replace);
  EXPECT_FALSE(result.difference.has_value());
  ASSERT_EQ(2U, result.skipped.size());
  EXPECT_EQ("not a regular file any more", result.skipped[0].reason);
  EXPECT_EQ("Too many levels of symbolic links (ELOOP)", result.skipped[1].reason);
}

TEST_F(Checker, FileThatShrinksAfterItWasListedIsTakenAsItIs) {
  bool cut = false;
  const auto shrink = [&](std::string_view, std::uint64_t, std::uint64_t) {
    if (!cut) {
      fs::resize_file(dir / "tree/sub/copy", 1000);
      cut = true;
    }
  };
  const CheckResult result = RunCheck(options, shrink);
  EXPECT_FALSE(result.difference.has_value());
  EXPECT_EQ(4U, result.files);
  EXPECT_EQ(51005U, result.sourceBytes);
}

TEST_F(Checker, ManySmallFilesStayWithinTheRoomThatIsTold) {
  fs::remove_all(dir / "tree");
  fs::create_directory(dir / "tree");
  constexpr std::uint64_t kFiles = 200;
  for (std::uint64_t i = 0; i < kFiles; ++i) {
    test::WriteFile(dir / ("tree/" + std::to_string(i)), std::string(300 + i, 'x'));
  }
  options.keep = true;
  const CheckResult result = RunCheck(options);
  EXPECT_EQ(kFiles, result.files);
  struct stat copies {};
  ASSERT_EQ(0, stat((dir / "store/copies").c_str(), &copies));
  const std::uint64_t used =
      result.storedBytes + static_cast<std::uint64_t>(copies.st_blocks) * 512;
  EXPECT_GT(used, 4 * result.sourceBytes) << "twice the size is not enough";
  EXPECT_LE(used,
            2 * result.sourceBytes +
                kFiles * ((kMostWrittenInSegments + kMostGrowthInSegments) * options.segmentSize +
                          std::uint64_t{kCopyAlignment}));
}

TEST_F(Checker, FileTooLargeToBeCopiedAndChangedIsSkipped) {
  const std::string huge = (dir / "huge").string();
  test::WriteFile(huge, "");
  const test::ToldSize told(huge, std::numeric_limits<off_t>::max());
  options.paths.push_back(huge);
  const CheckResult result = RunCheck(options);
  EXPECT_FALSE(result.difference.has_value());
  EXPECT_EQ(4U, result.files);
  ASSERT_EQ(1U, result.skipped.size());
  EXPECT_EQ(huge, result.skipped[0].path);
  EXPECT_EQ(0U, result.skipped[0].reason.find("too large: "));
}

TEST_F(Checker, NoFileAtAllCannotRun) {
  fs::create_directory(dir / "none");
  options.paths = {(dir / "none").string()};
  EXPECT_EQ("no readable file among the 0 found, 0 skipped, 0 passed over as not regular",
            ThrownText<StoreError>([&] { RunCheck(options); }));
  EXPECT_FALSE(fs::exists(dir / "store"));
}

TEST_F(Checker, ExceptionOfTheProgressEndsItAndRemovesTheStore) {
  const auto stop = [](std::string_view phase, std::uint64_t, std::uint64_t) {
    if (phase == "change") {
      throw std::runtime_error("stop");
    }
  };
  EXPECT_EQ("stop", ThrownText<std::runtime_error>([&] { RunCheck(options, stop); }));
  EXPECT_FALSE(fs::exists(dir / "store"));
}

TEST_F(Checker, ProgressOfEveryPhaseRisesToItsTotal) {
  std::vector<std::string> phases;
  std::uint64_t last = 0;
  std::uint64_t lastTotal = 0;
  const auto note = [&](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    if (phases.empty() || phases.back() != phase) {
      EXPECT_EQ(lastTotal, last);
      phases.emplace_back(phase);
      last = 0;
    }
    EXPECT_LE(last, done);
    EXPECT_LE(done, total);
    last = done;
    lastTotal = total;
  };
  RunCheck(options, note);
  EXPECT_EQ(lastTotal, last);
  EXPECT_EQ((std::vector<std::string>{"store", "change", "verify"}), phases);
}

}  // namespace
}  // namespace zefs::refhost
