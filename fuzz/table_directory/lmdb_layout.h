#pragma once

#include <cstddef>
#include <cstdint>

// Where things stand in a database file of LMDB 0.9 on 64-bit Linux, for damage that hits them.

namespace zefs::fuzz {

inline constexpr std::size_t kPageBytes = 4096;
inline constexpr std::size_t kPageHeaderBytes = 16;
inline constexpr std::size_t kNodeHeaderBytes = 8;

/// A field of a page, from its beginning, or of a node.
struct Field {
  std::size_t at;
  std::size_t width;
};

// Page header.
inline constexpr Field kPageNumber{0, 8};
inline constexpr Field kPagePad{8, 2};
inline constexpr Field kPageFlags{10, 2};
inline constexpr Field kPageLower{12, 2};  ///< end of the node offsets
inline constexpr Field kPageUpper{14, 2};  ///< begin of the nodes
inline constexpr Field kPageRun{12, 4};    ///< pages of an overflow value, in place of these two

inline constexpr std::uint64_t kBranchPage = 1;
inline constexpr std::uint64_t kLeafPage = 2;

// Meta page: 24 bytes about the file, two databases of 48 bytes (the free pages, the records), and
// what the last commit left.
inline constexpr Field kMetaMagic{16, 4};
inline constexpr Field kMetaVersion{20, 4};
inline constexpr Field kMetaAddress{24, 8};
inline constexpr Field kMetaMapSize{32, 8};
inline constexpr std::size_t kMetaFreeDb = 40;
inline constexpr std::size_t kMetaMainDb = 88;
inline constexpr Field kDbPad{0, 4};  ///< of the free database: the page size
inline constexpr Field kDbFlags{4, 2};
inline constexpr Field kDbDepth{6, 2};
inline constexpr Field kDbBranchPages{8, 8};
inline constexpr Field kDbLeafPages{16, 8};
inline constexpr Field kDbOverflowPages{24, 8};
inline constexpr Field kDbEntries{32, 8};
inline constexpr Field kDbRoot{40, 8};
inline constexpr Field kMetaLastPage{136, 8};
inline constexpr Field kMetaTransaction{144, 8};

// Node. Of a branch the first three fields are one number, the child's page.
inline constexpr Field kNodeSize{0, 4};
inline constexpr Field kNodeFlags{4, 2};
inline constexpr Field kNodeKeySize{6, 2};

}  // namespace zefs::fuzz
