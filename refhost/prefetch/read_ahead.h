#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>

#include "host/data_cache.h"
#include "refhost/durable/lasting_objects.h"
#include "refhost/prefetch/container_cache.h"
#include "refhost/threads/worker_pool.h"

namespace zefs::refhost {

struct ReadAheadOptions {
  std::size_t windowBytes = std::size_t{8} << 20;  ///< fetched ahead of a reader; 0: nothing
  std::size_t cacheBytes = std::size_t{64} << 20;  ///< most that is kept in memory, of all files
};

/// What reading ahead has come to.
struct ReadAheadFigures {
  std::uint64_t plans = 0;         ///< that tables were asked for
  std::uint64_t containers = 0;    ///< of which something was fetched, counted by plan
  std::uint64_t fetchedBytes = 0;  ///< from containers
  std::uint64_t hits = 0;          ///< reads of an extent from what was fetched
  std::uint64_t misses = 0;        ///< and from a container

  bool Any() const { return plans + hits + misses != 0; }
};

/// Fetches what files consist of ahead of their readers, container by container, in the threads of
/// a worker pool. Nothing here fails: what could not be fetched is not there. Thread-safe.
class ReadAhead {
 public:
  using Plan = std::list<DataCacheManagementInterface::DCInfo>;

  /// `objects` is not owned.
  ReadAhead(const ReadAheadOptions& options, const LastingObjects* objects);

  /// Bytes to be prepared ahead of a reader: no more than half of the cache, so that it does not
  /// throw out what comes next; 0 if nothing is read ahead.
  std::int64_t window() const { return window_; }

  /// Has what is missing of a plan fetched by `workers`, which end before this object. Extents
  /// whose place in their container is not known are left out.
  ///
  /// A container of whose blocks the plan needs a quarter is fetched whole: what else it holds is
  /// mostly what the reader, or one of another version of the file, needs next, and one long read
  /// costs less than many short ones. The quarter bounds what may be fetched in vain to three times
  /// what is needed. Of others only the blocks needed are fetched.
  void Fetch(const Plan& plan, WorkerPool* workers);

  /// Reads `size` bytes at `objOff` of the object that begins at `dcOffset` of the container, from
  /// what was fetched; waits for a fetch under way. False if it is not there.
  bool Read(std::uint64_t dcid, std::int32_t dcOffset, std::int64_t objOff, std::uint32_t size,
            char* out);

  ReadAheadFigures figures() const;

 private:
  class ContainerFetch;

  void FetchContainer(const DataCacheManagementInterface::DCInfo& info, WorkerPool* workers);

  const LastingObjects& objects_;
  const std::int64_t window_;
  ContainerCache cache_;
  std::atomic<std::uint64_t> plans_{0};
  std::atomic<std::uint64_t> containers_{0};
  std::atomic<std::uint64_t> fetchedBytes_{0};
  std::atomic<std::uint64_t> hits_{0};
  std::atomic<std::uint64_t> misses_{0};
};

}  // namespace zefs::refhost
