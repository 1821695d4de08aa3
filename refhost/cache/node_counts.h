#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace zefs::refhost {

/// What has become of the nodes of a store. Every node that was made is released once by its table,
/// or dropped with it, and then freed; anything else is an error that the last five count.
struct NodeCounts {
  std::atomic<std::uint64_t> made{0};
  std::atomic<std::uint64_t> released{0};
  std::atomic<std::uint64_t> dropped{0};  ///< with a table that was given up before they came back
  std::atomic<std::uint64_t> freed{0};

  std::atomic<std::uint64_t> releasedTwice{0};
  std::atomic<std::uint64_t> foreign{0};            ///< released, and not of that table
  std::atomic<std::uint64_t> leaked{0};             ///< not released when the table held nothing
  std::atomic<std::uint64_t> askedAfterRelease{0};  ///< for their object id
  std::atomic<std::uint64_t> readAfterRelease{0};

  /// What is wrong, in one line; empty if nothing is.
  std::string Problem() const;
};

}  // namespace zefs::refhost
