#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/store_verifier.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/refhost/table_settings.h"
#include "tests/support/in_memory.h"

namespace zefs::test {

inline constexpr std::size_t kSegment = 512;

/// Bytes that differ from place to place and from seed to seed.
inline std::string Pattern(std::uint64_t seed, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>((i + seed * 131) * 2654435761U >> 13);
  }
  return bytes;
}

inline refhost::DurableStoreOptions SmallStoreOptions() {
  refhost::DurableStoreOptions options;
  options.format.segmentSize = kSegment;
  options.containerBytes = 8192;
  options.workers = 2;
  return options;
}

/// Copies a directory and all below it to `to`, which is not there yet.
inline void CopyTree(const boost::filesystem::path& from, const boost::filesystem::path& to) {
  namespace fs = boost::filesystem;
  fs::create_directory(to);
  for (const fs::directory_entry& entry : fs::directory_iterator(from)) {
    const fs::path target = to / entry.path().filename();
    if (fs::is_directory(entry.status())) {
      CopyTree(entry.path(), target);
    } else {
      fs::copy_file(entry.path(), target);
    }
  }
}

inline std::string ReadAll(refhost::DurableStore& store, const std::string& name) {
  std::string bytes(static_cast<std::size_t>(store.SizeOf(name)), '?');
  bytes.resize(store.Read(name, 0, bytes.data(), bytes.size()));
  return bytes;
}

/// Everything that a verification finds, one line each; empty if all is sound.
inline std::string ProblemsOf(refhost::DurableStore& store) {
  refhost::StoreVerification result;
  const refhost::StoreProgress quiet;
  refhost::StoreVerifier(&store, quiet).Run(&result);
  std::string text = store.nodes().Problem();
  for (const refhost::StoreProblem& problem : result.problems) {
    text += problem.name + ": " + problem.text + "\n";
  }
  return text;
}

/// A store with small segments in a directory of its own, opened when it is first asked for.
class DurableStoreTest : public ::testing::Test {
 protected:
  std::string Path() const { return (dir_ / "store").string(); }

  refhost::DurableStore& store() {
    if (store_ == nullptr) {
      store_ = std::make_unique<refhost::DurableStore>(Path(), options_);
    }
    return *store_;
  }

  /// Ends this life of the store, without a sync. The next call of store() begins another.
  void Close() { store_.reset(); }
  void SyncAndReopen() {
    store().Sync();
    Close();
  }

  const SmallThresholds thresholds_{8, 100000};
  const TempDir dir_;
  refhost::DurableStoreOptions options_ = SmallStoreOptions();
  std::unique_ptr<refhost::DurableStore> store_;
};

}  // namespace zefs::test
