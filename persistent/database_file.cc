#include "persistent/database_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <lmdb.h>
#include <unistd.h>

#include <sys/stat.h>

#include "host/zefs_log.h"

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogRare;

namespace {

/// What a meta page says of one of its two databases.
struct TreeHead {
  std::uint32_t pad;  // of the free pages: the size of a page
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t branchPages;
  std::uint64_t leafPages;
  std::uint64_t overflowPages;
  std::uint64_t entries;
  std::uint64_t root;
};

/// The beginning of a meta page in the files of LMDB 0.9 on 64-bit systems.
struct MetaPage {
  std::uint64_t number;
  std::uint16_t pagePad;
  std::uint16_t pageFlags;
  std::uint32_t bounds;
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t address;
  std::uint64_t mapSize;
  TreeHead free;  // pages to be used again
  TreeHead main;  // the records
  std::uint64_t lastPage;
  std::uint64_t transaction;
};
static_assert(offsetof(MetaPage, magic) == 16 && offsetof(MetaPage, free) == 40 &&
                  offsetof(MetaPage, main) == 88 && offsetof(MetaPage, lastPage) == 136 &&
                  sizeof(MetaPage) == 152,
              "on-disk layout");

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;
constexpr std::uint16_t kMetaFlag = 0x08;
constexpr std::uint32_t kSmallestPage = 512;
constexpr std::uint32_t kLargestPage = 65536;
constexpr std::uint64_t kFirstTreePage = 2;
constexpr std::uint64_t kNoPage = ~std::uint64_t{0};  // the root of an empty tree
constexpr std::uint16_t kDeepest = 32;                // levels that a cursor of LMDB can hold
constexpr std::uint64_t kSmallestNode = 10;           // bytes of a record without key and value
// What changes the meaning of a page or of a key. The flags of the free pages also carry some of
// the environment.
constexpr std::uint16_t kSortedValues =
    MDB_DUPSORT | MDB_DUPFIXED | MDB_INTEGERDUP | MDB_REVERSEDUP;
constexpr std::uint16_t kNotAFlag = 0x8000;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ != -1) {
      ::close(fd_);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool ReadMeta(int fd, std::uint64_t at, MetaPage* meta) {
  return ::pread64(fd, meta, sizeof(*meta), static_cast<off64_t>(at)) ==
         static_cast<ssize_t>(sizeof(*meta));
}

/// Whether LMDB goes on from what it looks at itself.
bool IsMeta(const MetaPage& meta) {
  return meta.magic == kMagic && meta.version == kVersion && (meta.pageFlags & kMetaFlag) != 0;
}

bool IsPageSize(std::uint32_t size) {
  return size >= kSmallestPage && size <= kLargestPage && (size & (size - 1)) == 0;
}

/// Roots are written before the meta page that names them, so they lie in the file.
bool IsTree(const TreeHead& tree, std::uint64_t lastPage, std::uint64_t pagesInFile) {
  const bool root = tree.root == kNoPage || (tree.root >= kFirstTreePage && tree.root <= lastPage &&
                                             tree.root < pagesInFile);
  return root && tree.depth <= kDeepest;
}

/// 0, or the code that a damaged meta page is refused with, and what is wrong with it.
int CheckMeta(const MetaPage& meta, std::uint64_t fileSize, const char** what) {
  const std::uint64_t pageSize = meta.free.pad;
  const std::uint64_t pagesInFile = fileSize / pageSize;
  const auto refuse = [&](int code, const char* reason) {
    *what = reason;
    return code;
  };
  if ((meta.free.flags & kSortedValues) != 0) {
    return refuse(MDB_CORRUPTED, "flags of the free pages");
  }
  if ((meta.main.flags & ~kNotAFlag) != 0) {
    return refuse(MDB_INCOMPATIBLE, "flags of the records");
  }
  // Some versions of LMDB have told a map smaller than the file.
  if (meta.lastPage < kFirstTreePage - 1 ||
      meta.lastPage >= std::max(meta.mapSize / pageSize, pagesInFile)) {
    return refuse(MDB_CORRUPTED, "last page");
  }
  if (!IsTree(meta.free, meta.lastPage, pagesInFile)) {
    return refuse(MDB_CORRUPTED, "tree of the free pages");
  }
  if (!IsTree(meta.main, meta.lastPage, pagesInFile)) {
    return refuse(MDB_CORRUPTED, "tree of the records");
  }
  // Tables take memory by the number of records.
  if (meta.main.entries > fileSize / kSmallestNode) {
    return refuse(MDB_CORRUPTED, "number of records");
  }
  return 0;
}

/// Makes the file `wanted` bytes long. 0 or a system code.
int Lengthen(int fd, const std::string& path, std::uint64_t size, std::uint64_t wanted) {
  ZEFS_LOG(kLogRare, "db file %s is shorter than its pages, size %lld to %lld", path.c_str(),
           static_cast<long long>(size), static_cast<long long>(wanted));
  if (::ftruncate(fd, static_cast<off_t>(wanted)) != 0) {
    const int error = errno;
    ZEFS_LOG(kLogFailure, "Failed to lengthen db file %s, errno: %d", path.c_str(), error);
    return error;
  }
  return 0;
}

}  // namespace

int CheckDatabaseFile(const std::string& path) {
  // LMDB opens it in the same way. A FIFO or a device is not waited for.
  const Descriptor file(::open64(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  struct stat64 status {};
  if (file.get() == -1 || ::fstat64(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return 0;
  }
  const auto size = static_cast<std::uint64_t>(status.st_size);
  std::array<MetaPage, 2> metas{};
  if (!ReadMeta(file.get(), 0, metas.data()) || !IsMeta(metas[0])) {
    return 0;
  }
  const std::uint32_t pageSize = metas[0].free.pad;
  const char* what = "page size";
  int ret = IsPageSize(pageSize) ? 0 : MDB_INVALID;
  if (ret == 0) {
    if (!ReadMeta(file.get(), pageSize, &metas[1]) || !IsMeta(metas[1])) {
      return 0;
    }
    ret = metas[1].free.pad == pageSize ? 0 : MDB_INVALID;
  }
  // LMDB goes on from the newer one. A commit that failed may have left the other one with the new
  // roots under the old number and last page; the next commit overwrites it.
  const MetaPage& newer = metas[metas[0].transaction < metas[1].transaction ? 1 : 0];
  if (ret == 0) {
    ret = CheckMeta(newer, size, &what);
  }
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "db file %s is damaged: %s", path.c_str(), what);
    return ret;
  }
  const std::uint64_t wanted = (newer.lastPage + 1) * pageSize;
  return size < wanted ? Lengthen(file.get(), path, size, wanted) : 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
