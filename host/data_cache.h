#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/fingerprint.h"
#include "host/visibility.h"

// Records and interfaces of the host's data cache, as far as the library uses them. The records are
// exchanged by value between separately built binaries: the order of the fields is fixed.

namespace zefs {

/// A piece of file data in the host's memory. The library knows nodes by address, never owns one,
/// and reads nothing of it but `dcOffset`, and that only right after GetNodeObjectID succeeded.
class ZEFS_HOST_API DataCacheNode {
 public:
  /// Identity of the data behind an extent. Compared field by field where it is compared at all.
  /// The meaning of the three `attr` fields is the host's: the library carries them.
  struct ObjectID {
    std::uint64_t dcid = 0;      ///< data-container id; below 64 it names no container
    crfp_digest_t fp{};          ///< binary fingerprint of the object
    std::uint8_t attrByte = 0;   ///< carried unchanged
    std::uint32_t attrWord = 0;  ///< carried unchanged
    std::uint8_t attrFlag = 0;   ///< carried unchanged
  };

  /// An object id with the logical range [startOffset, endOffset) of the extent that it belongs to.
  struct ObjectID_With_Offset {
    ObjectID objectID;
    std::int64_t startOffset = 0;
    std::int64_t endOffset = 0;
  };

  std::int32_t dcOffset = -1;  ///< offset of the data inside its container, bytes; -1: not known
};

/// One entry of the data-container offset store.
struct DCOffset {
  std::int64_t key = -1;  ///< logical start offset of the extent that the entry is for
  std::uint64_t dcid = 0;
  crfp_digest_t fp{};
  std::int64_t dcOffset = -1;
};

/// Passed through to ProtectShare; the library never looks inside.
class DataTransferManagement;

/// The host's data cache, given to a table's constructor and never owned by it. Both operations may
/// be called from any thread that calls the table, under the table's locks: an implementation must
/// not call back into the table.
class ZEFS_HOST_API DataCacheManagementInterface {
 public:
  /// Input of a prefetch plan: the logical range [start, end).
  struct PrefetchRange {
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::uint32_t rangeTag = 0;  ///< copied into every DCInfo that the range touches
  };

  /// One extent of a prefetch plan.
  struct ExtInfo {
    DataCacheNode::ObjectID objectID;
    std::int64_t sOff = 0;       ///< logical start offset
    std::uint32_t objOff = 0;    ///< low half of the offset inside the object
    std::uint32_t length = 0;    ///< bytes
    std::int32_t dcOffset = -1;  ///< offset inside the container, -1 while not known
    std::uint64_t millis = 0;    ///< get_millis() when the extent was collected
    bool inRange = false;        ///< the extent starts below the end of the range
  };

  /// One data container of a prefetch plan.
  struct DCInfo {
    std::uint64_t dcid = 0;
    std::vector<ExtInfo> extents;
    std::uint32_t totalBytes = 0;  ///< sum of the lengths of `extents`
    std::uint32_t reserved = 0;    ///< never written by the library
    std::uint32_t rangeTag = 0;
  };

  virtual ~DataCacheManagementInterface() = default;

  /// Asks for the object id of the data in `node`. Returns 0 and fills `*out` when it is known;
  /// returns anything else, `*out` unspecified, when it is not. `flag` is the host's.
  virtual int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) = 0;

  /// Called once per flush that has something to write, before anything is written. Returns 0 when
  /// the flush may go on, else the code with which it is to fail. The arguments are those that the
  /// host gave to the flush, unchanged.
  virtual int ProtectShare(DataTransferManagement* transfer, const std::string& shareScope,
                           const std::string& share) = 0;
};

}  // namespace zefs
