#include <algorithm>
#include <random>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <sys/stat.h>

#include "fuzz/fuzz_support.h"
#include "fuzz/table_directory/damage.h"
#include "fuzz/table_directory/lmdb_layout.h"
#include "tests/support/file_bytes.h"

// Damage of files: of bytes and pages inside them, of their length, and of what they are.

namespace zefs::fuzz {

namespace {

namespace fs = boost::filesystem;

constexpr std::uint64_t kSparseDatabase = std::uint64_t{1} << 40;
constexpr std::uint64_t kSparseSideFile = std::uint64_t{1} << 26;  // read from end to end

std::string Garbage(std::uint64_t seed, std::size_t size) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

std::uint64_t NumberAt(const std::string& bytes, std::size_t at, std::size_t width) {
  ByteReader reader(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  reader.Bytes(at);
  return reader.Number(width);
}

/// The bytes of a database, and damage to them.
class DatabaseImage {
 public:
  DatabaseImage(const Damage& damage, std::string bytes)
      : damage_(damage), bytes_(std::move(bytes)) {}

  const std::string& bytes() const { return bytes_; }
  std::size_t Pages() const { return bytes_.size() / kPageBytes; }

  void OfMeta(const Field& field) {
    const std::size_t first = damage_.page % 2;
    Poke(first * kPageBytes + field.at, field.width);
    if (damage_.how >= 4) {
      Poke((1 - first) * kPageBytes + field.at, field.width);
    }
  }
  void OfPage(const Field& field) { Poke(PageAt(damage_.page) + field.at, field.width); }

  /// A field of a node, or `at` bytes behind its header.
  void OfNode(const Field& field) {
    const std::size_t node = NodeAt();
    if (node != 0) {
      Poke(node + field.at, field.width);
    }
  }
  void OfValue() {
    const std::size_t node = NodeAt();
    if (node != 0) {
      const auto key = static_cast<std::size_t>(NumberAt(bytes_, node + kNodeKeySize.at, 2));
      Poke(node + kNodeHeaderBytes + key + damage_.unused % 9 * 8, 8);
    }
  }
  void OfNodeOffset() {
    const std::size_t page = NodePage();
    const std::size_t nodes = NodesOf(page);
    if (nodes != 0) {
      Poke(page + kPageHeaderBytes + damage_.node % nodes * 2, 2);
    }
  }
  void OfAnyByte() {
    if (!bytes_.empty()) {
      Poke((std::size_t{damage_.page} * kPageBytes + damage_.node % kPageBytes) % bytes_.size(), 1);
    }
  }

  void SwapPages() {
    const std::size_t a = PageAt(damage_.page);
    const std::size_t b = PageAt(damage_.node);
    if (std::max(a, b) + kPageBytes <= bytes_.size()) {
      std::swap_ranges(Place(a), Place(a + kPageBytes), Place(b));
    }
  }
  void CopyPage() {
    const std::string page = bytes_.substr(PageAt(damage_.node), kPageBytes);
    bytes_.replace(PageAt(damage_.page), page.size(), page);
  }
  void ReplacePage(const std::string& page) {
    if (Pages() != 0) {
      bytes_.replace(PageAt(damage_.page), kPageBytes, page);
    }
  }

 private:
  std::string::iterator Place(std::size_t at) {
    return bytes_.begin() + static_cast<std::ptrdiff_t>(at);
  }
  std::size_t PageAt(std::size_t number) const {
    return Pages() == 0 ? 0 : number % Pages() * kPageBytes;
  }
  std::size_t NodesOf(std::size_t page) const {
    const auto lower = static_cast<std::size_t>(NumberAt(bytes_, page + kPageLower.at, 2));
    return lower <= kPageHeaderBytes ? 0 : (lower - kPageHeaderBytes) / 2;
  }
  /// The next page with nodes, if there is one.
  std::size_t NodePage() const {
    for (std::size_t i = 0; i < Pages(); ++i) {
      const std::size_t page = PageAt(damage_.page + i);
      if ((NumberAt(bytes_, page + kPageFlags.at, 2) & (kBranchPage | kLeafPage)) != 0) {
        return page;
      }
    }
    return 0;
  }
  std::size_t NodeAt() const {
    const std::size_t page = NodePage();
    const std::size_t nodes = NodesOf(page);
    if (page == 0 || nodes == 0) {
      return 0;
    }
    return page + static_cast<std::size_t>(
                      NumberAt(bytes_, page + kPageHeaderBytes + damage_.node % nodes * 2, 2));
  }
  void Poke(std::size_t at, std::size_t width) {
    std::uint64_t number = damage_.value;
    switch (damage_.how % 4) {
      case 1:
        number ^= NumberAt(bytes_, at, width);
        break;
      case 2:
        number += NumberAt(bytes_, at, width);
        break;
      default:
        break;
    }
    std::string laid;
    AppendNumber(&laid, number, width);
    if (at + width <= bytes_.size()) {
      bytes_.replace(at, width, laid);
    }
  }

  const Damage& damage_;
  std::string bytes_;
};

/// A kind of damage that sets one field.
struct FieldDamage {
  DamageKind kind;
  Field field;
};

constexpr Field InDb(std::size_t db, const Field& field) {
  return {db + field.at, field.width};
}

constexpr FieldDamage kMetaFields[] = {
    {DamageKind::kMetaMagic, kMetaMagic},
    {DamageKind::kMetaVersion, kMetaVersion},
    {DamageKind::kMetaAddress, kMetaAddress},
    {DamageKind::kMetaMapSize, kMetaMapSize},
    {DamageKind::kMetaPageSize, InDb(kMetaFreeDb, kDbPad)},
    {DamageKind::kMetaFreeFlags, InDb(kMetaFreeDb, kDbFlags)},
    {DamageKind::kMetaFreeDepth, InDb(kMetaFreeDb, kDbDepth)},
    {DamageKind::kMetaFreeEntries, InDb(kMetaFreeDb, kDbEntries)},
    {DamageKind::kMetaFreeRoot, InDb(kMetaFreeDb, kDbRoot)},
    {DamageKind::kMetaMainPad, InDb(kMetaMainDb, kDbPad)},
    {DamageKind::kMetaMainFlags, InDb(kMetaMainDb, kDbFlags)},
    {DamageKind::kMetaMainDepth, InDb(kMetaMainDb, kDbDepth)},
    {DamageKind::kMetaMainPages, InDb(kMetaMainDb, kDbLeafPages)},
    {DamageKind::kMetaMainEntries, InDb(kMetaMainDb, kDbEntries)},
    {DamageKind::kMetaMainRoot, InDb(kMetaMainDb, kDbRoot)},
    {DamageKind::kMetaLastPage, kMetaLastPage},
    {DamageKind::kMetaTransaction, kMetaTransaction},
    {DamageKind::kMetaPageFlags, kPageFlags},
};
constexpr FieldDamage kPageFields[] = {
    {DamageKind::kPageNumber, kPageNumber}, {DamageKind::kPageFlags, kPageFlags},
    {DamageKind::kPageLower, kPageLower},   {DamageKind::kPageUpper, kPageUpper},
    {DamageKind::kPageRun, kPageRun},
};
constexpr FieldDamage kNodeFields[] = {
    {DamageKind::kNodeSize, kNodeSize},
    {DamageKind::kNodeFlags, kNodeFlags},
    {DamageKind::kNodeKeySize, kNodeKeySize},
    {DamageKind::kNodeChild, {0, 6}},
    {DamageKind::kKeyBytes, {kNodeHeaderBytes, 8}},
};

template <typename Fields>
const Field* FieldOf(DamageKind kind, const Fields& fields) {
  const auto* const found =
      std::find_if(std::begin(fields), std::end(fields),
                   [kind](const FieldDamage& damage) { return damage.kind == kind; });
  return found == std::end(fields) ? nullptr : &found->field;
}

/// Damage inside a database. False if `damage` is of another kind.
bool ApplyToImage(const Damage& damage, DatabaseImage* image) {
  if (const Field* const meta = FieldOf(damage.kind, kMetaFields)) {
    image->OfMeta(*meta);
    return true;
  }
  if (const Field* const page = FieldOf(damage.kind, kPageFields)) {
    image->OfPage(*page);
    return true;
  }
  if (const Field* const node = FieldOf(damage.kind, kNodeFields)) {
    image->OfNode(*node);
    return true;
  }
  switch (damage.kind) {
    case DamageKind::kNodeOffset:
      image->OfNodeOffset();
      return true;
    case DamageKind::kValueBytes:
      image->OfValue();
      return true;
    case DamageKind::kAnyByte:
      image->OfAnyByte();
      return true;
    case DamageKind::kSwapPages:
      image->SwapPages();
      return true;
    case DamageKind::kCopyPage:
      image->CopyPage();
      return true;
    case DamageKind::kZeroPage:
      image->ReplacePage(std::string(kPageBytes, '\0'));
      return true;
    case DamageKind::kRandomPage:
      image->ReplacePage(Garbage(damage.value, kPageBytes));
      return true;
    default:
      return false;
  }
}

void Resize(const fs::path& file, std::uint64_t size) {
  Require(::truncate(file.c_str(), static_cast<off_t>(size)) == 0, "a file cannot be resized");
}

/// Damage of what a file is, or of its length. `other` is another file of the directory.
void ApplyToFile(const Damage& damage, const fs::path& file, const fs::path& other) {
  const bool there = fs::is_regular_file(fs::symlink_status(file));
  const std::uint64_t size = there ? fs::file_size(file) : 0;
  const auto replace = [&](auto make) {
    fs::remove_all(file);
    make();
  };
  switch (damage.kind) {
    case DamageKind::kCutFile:
      Resize(file, size == 0 ? 0 : damage.value % size);
      break;
    case DamageKind::kCutAtPage:
      Resize(file, size < kPageBytes ? 0 : damage.value % (size / kPageBytes) * kPageBytes);
      break;
    case DamageKind::kLongerFile:
      Resize(file, size + damage.value % (16 * kPageBytes));
      break;
    case DamageKind::kSparseFile:
      Resize(file,
             file.string().find("mdb") != std::string::npos ? kSparseDatabase : kSparseSideFile);
      break;
    case DamageKind::kEmptyFile:
      Resize(file, 0);
      break;
    case DamageKind::kNoFile:
      fs::remove(file);
      break;
    case DamageKind::kOtherFile:
      if (fs::is_regular_file(fs::symlink_status(other))) {
        const std::string bytes = zefs::test::BytesOf(other);
        replace([&] { zefs::test::WriteBytes(file, bytes); });
      }
      break;
    case DamageKind::kGarbageFile:
      replace([&] {
        zefs::test::WriteBytes(file, Garbage(damage.value, damage.value % (4 * kPageBytes)));
      });
      break;
    case DamageKind::kDirectory:
      replace([&] { fs::create_directory(file); });
      if (damage.how != 0) {
        zefs::test::WriteBytes(file / "inside", "x");
      }
      break;
    case DamageKind::kDanglingLink:
      replace([&] { fs::create_symlink("nowhere", file); });
      break;
    case DamageKind::kLinkLoop:
      replace([&] { fs::create_symlink(file.filename(), file); });
      break;
    case DamageKind::kLinkToOther:
      if (other != file) {
        replace([&] { fs::create_symlink(other.filename(), file); });
      }
      break;
    case DamageKind::kFifo:
      replace([&] { Require(::mkfifo(file.c_str(), 0600) == 0, "a FIFO cannot be made"); });
      break;
    case DamageKind::kUnreadable:
      Require(::chmod(file.c_str(), 0) == 0, "rights cannot be taken");
      break;
    default:
      break;
  }
}

void ApplyToLock(const Damage& damage, const fs::path& lock) {
  fs::remove_all(lock);
  if (damage.kind == DamageKind::kLockGarbage) {
    zefs::test::WriteBytes(lock, Garbage(damage.value, damage.value % (4 * kPageBytes)));
  } else if (damage.kind == DamageKind::kLockDirectory) {
    fs::create_directory(lock);
  } else {
    Require(::mkfifo(lock.c_str(), 0600) == 0, "a FIFO cannot be made");
  }
}

/// Side files that an earlier life may have left, and that damage of files makes where none is.
constexpr const char* kPossibleFiles[] = {
    "lsml0.mdb",   "data.mdb", "tmp.mdb",      "mergedb", "journal",
    "journal.rep", "dcoffset", "dcoffset.tmp", "bloom",   "bloom.merge",
};

}  // namespace

void ApplyToFiles(const Damage& damage, const std::string& directory) {
  const fs::path root(directory);
  if (damage.kind >= DamageKind::kLockGarbage && damage.kind <= DamageKind::kLockFifo) {
    const std::string name = kPossibleFiles[damage.file % 4];  // NOLINT: inside
    ApplyToLock(damage, root / (name + "-lock"));
    return;
  }
  if (damage.kind >= DamageKind::kCutFile && damage.kind <= DamageKind::kUnreadable) {
    const fs::path file = root / kPossibleFiles[damage.file % std::size(kPossibleFiles)];
    const fs::path other = root / kPossibleFiles[damage.node % std::size(kPossibleFiles)];
    const bool makes = damage.kind >= DamageKind::kOtherFile && damage.kind <= DamageKind::kFifo;
    if (makes || fs::is_regular_file(fs::symlink_status(file))) {
      ApplyToFile(damage, file, other);
    }
    return;
  }
  const bool side = damage.kind == DamageKind::kSideBytes;
  const std::vector<std::string> names = side ? SideFilesIn(directory) : DatabasesIn(directory);
  if (names.empty()) {
    return;
  }
  const fs::path file = root / names[damage.file % names.size()];
  if (!fs::is_regular_file(fs::symlink_status(file))) {
    return;
  }
  if (fs::file_size(file) > kSparseSideFile) {
    return;  // made huge before: not read into memory
  }
  std::string bytes = zefs::test::BytesOf(file);
  if (side) {
    std::string laid;
    AppendNumber(&laid, damage.value, 8);
    if (!bytes.empty()) {
      bytes.replace(damage.page % bytes.size(), laid.size(), laid);
    }
    zefs::test::WriteBytes(file, bytes);
    return;
  }
  DatabaseImage image(damage, std::move(bytes));
  if (ApplyToImage(damage, &image)) {
    zefs::test::WriteBytes(file, image.bytes());
  }
}

}  // namespace zefs::fuzz
