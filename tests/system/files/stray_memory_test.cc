// What gets into the files of a table is what was written to it, and zeros: nothing of what else
// the memory of the process holds.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/figures.h"
#include "tests/system/files/file_life_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

// What allocators fill memory with: the C library's what it takes back with the canary and what it
// hands out with its complement, the address sanitizer's both with the canary.
constexpr unsigned char kCanary = 0x5c;
constexpr std::array<unsigned char, 2> kCanaries = {kCanary, 0xff ^ kCanary};
constexpr std::size_t kStrayBytes = 3;  // in a row; a record's padding has that many at least

/// Leaves canaries on the stack below the caller.
__attribute__((noinline, no_sanitize("address"))) void SoilStack() {
  constexpr std::size_t kDeep = std::size_t{128} << 10;
  std::array<unsigned char, kDeep> soil;
  soil.fill(kCanary);
  asm volatile("" : : "r"(soil.data()) : "memory");
}

/// Where the first canaries stand in a row; npos if there are none.
std::size_t FindCanary(const std::string& bytes) {
  std::size_t found = std::string::npos;
  for (const unsigned char canary : kCanaries) {
    found = std::min(found, bytes.find(std::string(kStrayBytes, static_cast<char>(canary))));
  }
  return found;
}

class StrayMemoryTest : public FileLifeTest {
 protected:
  /// Runs `life` in a process in which memory that nobody has written to is full of canaries. That
  /// is chosen when a process starts: it is this program again, with this one test.
  static void InSoiledProcess(const std::function<void()>& life) {
    constexpr char kMark[] = "ZEFS_TEST_SOILED";
    if (std::getenv(kMark) != nullptr) {
      SoilStack();
      life();
      return;
    }
    InChild([&] {
      const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
      const std::string filter =
          std::string("--gtest_filter=") + test.test_suite_name() + '.' + test.name();
      const std::string byte = std::to_string(kCanary);
      const char* const given = std::getenv("ASAN_OPTIONS");
      ::setenv(kMark, "1", 1);
      ::setenv("GLIBC_TUNABLES",
               ("glibc.malloc.tcache_count=0:glibc.malloc.perturb=" + byte).c_str(), 1);
      ::setenv("ASAN_OPTIONS",
               ((given == nullptr ? std::string() : given + std::string(":")) +
                "max_malloc_fill_size=100000000:malloc_fill_byte=" + byte +
                ":max_free_fill_size=100000000:free_fill_byte=" + byte)
                   .c_str(),
               1);
      ::execl("/proc/self/exe", "again", filter.c_str(), nullptr);
      FAIL() << "cannot start again: " << std::strerror(errno);
    });
  }

  /// No file below dir_ holds a canary. Returns the number of bytes looked through.
  long ExpectClean() const {
    long bytes = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(dir_.path())) {
      if (fs::is_regular_file(entry.status())) {
        const std::string content = BytesOf(entry.path());
        bytes += static_cast<long>(content.size());
        EXPECT_EQ(std::string::npos, FindCanary(content)) << entry.path();
      }
    }
    return bytes;
  }

  void Store(long start, bool force) {
    SoilStack();
    FileLifeTest::Store(start, force);
    bytes_ += ExpectClean();
  }

  /// A life with all files that there can be, each looked through at several moments.
  void Live() {
    const std::string directory = Directory().string();
    CMappingLMDB& table = LoadFrom(directory);
    bytes_ += ExpectClean();
    EXPECT_EQ(0, table.setFileSize(5000));
    EXPECT_EQ(0, table.setExtMapVersion({2, 0}));
    ObjectID doid = Oid(90, 0x02020202U);
    EXPECT_EQ(0, table.SetDOID(&doid));
    Store(0, true);
    Store(1000, false);
    SoilStack();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    bytes_ += ExpectClean();
    Store(50, false);
    SoilStack();
    EXPECT_EQ(0, table.truncate(1170, nullptr));
    bytes_ += ExpectClean();
    SoilStack();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    SoilStack();
    TakeOffsetsBack();
    EXPECT_EQ(0, table.AppendToRefreshDcOffsetList(1, 70, DigestOf(1)));
    SoilStack();
    EXPECT_EQ(0, table.UpdateObjectIdsByRange(0, 5000, {{Oid(99, 0x01010102U), 0, 5000}}));
    EXPECT_EQ(0, table.Snapshot(directory, (dir_ / "snapshot").string()));
    Store(2000, false);
    fs::rename(Directory(), dir_ / "moved");
    table.UpdateExtPath((dir_ / "moved").string());
    Store(3000, true);
    Store(3500, false);
    Close();
    SoilStack();
    LoadFrom((dir_ / "moved").string());
    ExpectContent();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    bytes_ += ExpectClean();
    Close();
    bytes_ += ExpectClean();
  }

  long bytes_ = 0;
};

// The net itself: without it the test below would find nothing, whatever there was.
TEST_F(StrayMemoryTest, MemoryThatNobodyHasWrittenToIsFullOfCanaries) {
  InSoiledProcess([] {
    for (const std::size_t size : {24U, 100U, 5000U, 1000000U}) {
      const std::unique_ptr<char[]> block(new char[size]);
      const std::string bytes(block.get(), size);
      EXPECT_NE(std::string::npos, FindCanary(bytes)) << size;
    }
  });
}

TEST_F(StrayMemoryTest, NoFileOfATableHoldsAny) {
  InSoiledProcess([&] {
    Live();
    TellFigure("bytes of files searched for stray memory", bytes_);
  });
}

// With records enough for several pages, chunks and buckets.
TEST_F(StrayMemoryTest, NorDoesOneOfALargeTable) {
  InSoiledProcess([&] {
    CMappingLMDB& table = LoadFrom(Directory().string());
    for (int i = 0; i < 3000; ++i) {
      const unsigned int tag = static_cast<unsigned int>(i % 50);
      WriteNode(i * 10L, i * 10L + 12, Ready(Oid(70 + tag, tag * 0x01010101U), -1), 1);
      if (i % 700 == 0) {
        SoilStack();
        Flush(false);
      }
    }
    Flush(false);
    EXPECT_EQ(0, table.truncate(25000, nullptr));
    SoilStack();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    Close();
    TellFigure("bytes of files searched for stray memory", ExpectClean());
  });
}

}  // namespace
}  // namespace zefs::test
