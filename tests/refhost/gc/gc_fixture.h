#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "refhost/gc/catch_up.h"
#include "refhost/gc/compactor.h"
#include "refhost/gc/garbage_collector.h"
#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::test {

/// Files by name, as they have to be.
using Files = std::map<std::string, std::string>;

inline std::string Segments(std::uint64_t seed, std::size_t count) {
  return Pattern(seed, count * kSegment);
}

/// Entries of the index that refer to something that is not there, one line each.
inline std::string IndexProblemsOf(refhost::DurableStore& store) {
  std::string problems;
  const auto sizes = store.objects().ContainerSizes();
  store.objects().ForEach([&](const crfp_digest_t& /*fp*/, const refhost::Location& where) {
    const auto container = sizes.find(where.dcid);
    if (container == sizes.end() || where.offset + where.length > container->second) {
      problems += "an entry refers to [" + std::to_string(where.offset) + ", +" +
                  std::to_string(where.length) + ") of container " + std::to_string(where.dcid) +
                  (container == sizes.end() ? ", which is gone\n" : ", which is shorter\n");
    }
  });
  return problems;
}

/// Every byte through the extent maps, every extent, and the index.
inline void ExpectSound(refhost::DurableStore& store, const Files& files, const std::string& when) {
  EXPECT_EQ(files.size(), store.Catalogued().size()) << when;
  for (const auto& [name, bytes] : files) {
    EXPECT_TRUE(bytes == ReadAll(store, name)) << name << " " << when;
    EXPECT_FALSE(store.Catalogued().at(name).changing) << name << " " << when;
  }
  EXPECT_EQ("", ProblemsOf(store)) << when;
  EXPECT_EQ("", IndexProblemsOf(store)) << when;
}

class GcTest : public DurableStoreTest {
 protected:
  void Put(const std::string& name, const std::string& bytes) {
    store().Create(name);
    store().Write(name, 0, bytes);
    files_[name] = bytes;
  }

  /// Puts files that share containers, a segment of each after the other.
  void PutInterleaved(const Files& files) {
    std::size_t longest = 0;
    for (const auto& [name, bytes] : files) {
      store().Create(name);
      files_[name] = bytes;
      longest = std::max(longest, bytes.size());
    }
    for (std::size_t at = 0; at < longest; at += kSegment) {
      for (const auto& [name, bytes] : files) {
        if (at < bytes.size()) {
          store().Write(name, static_cast<std::int64_t>(at), bytes.substr(at, kSegment));
        }
      }
    }
  }

  void Remove(const std::string& name) {
    store().Remove(name);
    files_.erase(name);
  }

  refhost::Collected Collect() { return refhost::CollectGarbage(&store(), {}); }
  refhost::Compacted Compact(unsigned below = refhost::kUsualSparseBelow) {
    return refhost::Compact(&store(), below, {});
  }
  std::uint64_t ContainerBytes() {
    std::uint64_t bytes = 0;
    for (const auto& [dcid, size] : store().objects().ContainerSizes()) {
      bytes += size;
    }
    return bytes;
  }
  std::size_t Containers() { return store().objects().ContainerSizes().size(); }

  /// Ends this life so that the tables can be loaded by the next, in this process too.
  void Reopen() {
    store().Sync();
    store().CloseFiles();
    Close();
    store();
  }

  void ExpectSoundNow(const std::string& when) { ExpectSound(store(), files_, when); }

  Files files_;
};

}  // namespace zefs::test
