#pragma once

#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/support/fault_injection.h"

namespace zefs::test {

/// A table as a set of files, and a place that it is copied or moved to.
class RelocationTest : public MergeTest {
 protected:
  const Records full_ = {Stored(0, 100, 70), Stored(100, 150, 71)};
  const Records small_ = {Stored(40, 60, 80), Stored(300, 310, 81)};

  /// A loaded table over these records.
  CMappingLMDB& LoadTable(const std::string& type = "PROVISION", const std::string& prefix = "") {
    Write(prefix + "data.mdb", full_);
    Write(prefix + "lsml0.mdb", small_);
    table_ = std::make_unique<CMappingLMDB>(&host_, type);
    EXPECT_EQ(0, table_->load(Directory().string(), false, prefix));
    log_.Take();
    return *table_;
  }

  /// What such a table shows.
  static std::vector<std::string> Content() {
    return {"[0, 40) 70 70000 700", "[40, 60) 80 80000 800", "[60, 100) 70 70060 700",
            "[100, 150) 71 71000 710", "[300, 310) 81 81000 810"};
  }

  boost::filesystem::path Target() const { return dir_ / "target"; }
  std::string TargetFile(const std::string& name) const { return (Target() / name).string(); }

  /// The rights of a file, as chmod takes them.
  static unsigned int ModeOf(const boost::filesystem::path& path) {
    return static_cast<unsigned int>(boost::filesystem::status(path).permissions());
  }

  static std::set<std::string> NamesIn(const boost::filesystem::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(directory)) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  /// What a table that is loaded from `directory` shows, in a process of its own.
  void ExpectToLoad(const boost::filesystem::path& directory, const std::string& prefix = "") {
    InChild([&] {
      table_ = std::make_unique<CMappingLMDB>(&host_, "PROVISION");
      EXPECT_EQ(0, table_->load(directory.string(), false, prefix));
      EXPECT_EQ(Content(), Walk(*table_));
      Destroy();
    });
  }
};

}  // namespace zefs::test
