#include "refhost/durable/store_verifier.h"

#include <fcntl.h>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/durable/store_figures.h"
#include "refhost/index/lmdb_file.h"
#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::DurableStoreTest;
using test::kSegment;
using test::Pattern;
using test::ProblemsOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class StoreVerifierTest : public DurableStoreTest {
 protected:
  StoreVerifierTest() {
    store().Create("a");
    store().Write("a", 0, Pattern(1, 2000));
    store().Create("b");
    store().Write("b", 0, Pattern(1, kSegment));
    store().Write("b", 5000, Pattern(2, 100));
    SyncAndReopen();
  }
};

TEST_F(StoreVerifierTest, SoundStoreIsCounted) {
  StoreVerification result;
  const StoreProgress quiet;
  StoreVerifier(&store(), quiet).Run(&result);
  EXPECT_TRUE(result.problems.empty());
  EXPECT_EQ(2U, result.files);
  EXPECT_EQ(0U, result.changing);
  EXPECT_EQ(2000U + 5100U, result.bytes);
  EXPECT_EQ(4U + 2U, result.extents);
  EXPECT_EQ(5U, result.objects) << "one is shared";
}

TEST_F(StoreVerifierTest, FlippedByteIsFoundInEveryFileThatHasIt) {
  const std::string container = Path() + "/containers/64";
  std::string bytes(fs::file_size(container), '\0');
  FileHandle::Open(container, O_RDONLY).ReadAt(0, bytes.data(), bytes.size());
  const std::size_t at = bytes.find(Pattern(1, kSegment));
  ASSERT_NE(std::string::npos, at);
  FileHandle::Open(container, O_RDWR)
      .WriteAt(static_cast<std::int64_t>(at) + 7,
               std::string(1, static_cast<char>(~bytes[at + 7])));
  const std::string problems = ProblemsOf(store());
  EXPECT_THAT(problems, StartsWith("a: extent [0, 512): object "));
  EXPECT_THAT(problems, HasSubstr("\nb: extent [0, 512): object "));
  EXPECT_THAT(problems, HasSubstr(" has the fingerprint "));
}

TEST_F(StoreVerifierTest, LostIndexEntryIsFound) {
  {
    std::string key;
    LmdbFile index(Path() + "/index.mdb", 1 << 30);
    index.ForEach([&](std::string_view any, std::string_view) { key = any; });
    index.Apply({{key, std::nullopt}});
  }
  EXPECT_THAT(ProblemsOf(store()), HasSubstr(" is not stored\n"));
}

TEST_F(StoreVerifierTest, OtherSizeAndOtherDigestThanThoseOfTheSyncAreFound) {
  {
    Catalogue catalogue(Path() + "/catalogue.mdb");
    CatalogueEntry a = *catalogue.Find("a");
    a.size = 1999;
    CatalogueEntry b = *catalogue.Find("b");
    b.digest.fill(0);
    catalogue.Commit({{"a", a}, {"b", b}});
  }
  const std::string problems = ProblemsOf(store());
  EXPECT_THAT(problems, StartsWith("a: it has 2000 bytes, at its last sync it had 1999\n"));
  EXPECT_THAT(problems, HasSubstr("b: its digest is "));
}

TEST_F(StoreVerifierTest, FileThatIsChangingHasNoDigestToCompare) {
  {
    Catalogue catalogue(Path() + "/catalogue.mdb");
    CatalogueEntry a = *catalogue.Find("a");
    a.changing = true;
    a.digest.fill(0);
    catalogue.Commit({{"a", a}});
  }
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(StoreVerifierTest, FiguresTellWhereExtentsAre) {
  const StoreFigures figures = FiguresOf(&store());
  EXPECT_EQ(2U, figures.files);
  EXPECT_EQ(7100U, figures.logicalBytes);
  EXPECT_EQ(6U, figures.records.all());
  EXPECT_EQ(6U, figures.records.small);
  EXPECT_EQ(5U, figures.objects);
  EXPECT_EQ(1U, figures.containers);
  EXPECT_EQ(2000U + 100U, figures.containerBytes);
  EXPECT_GT(figures.diskBytes, figures.containerBytes);
}

}  // namespace
}  // namespace zefs::refhost
