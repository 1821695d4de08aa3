#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/persistent/lifecycle_fixture.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_addresses.h"

namespace zefs::test {

/// A table whose databases are opened one by one, so that they hold nothing but what the test
/// stores.
class OpenDatabasesTest : public LifecycleTest {
 protected:
  using LMDBContext = Aldenta::Qnd::Morene::Zefs::LMDBContext;

  ~OpenDatabasesTest() override {
    if (table_ != nullptr) {
      peer().ClearDBEnv(&peer().tmpDb());  // the destructor of the table leaves it open
    }
  }

  static constexpr unsigned long kMapSize = 1UL << 20;

  /// The table's directory as the log shows it.
  std::string DirectoryName() const { return Directory().string(); }

  /// A table with its small and its full database, in files that are there or that it makes.
  /// Forgets the log lines of it.
  CMappingLMDB& Open() {
    MakeDirectory();
    Make();
    peer().path() = DirectoryName();
    OpenOne(CMappingLMDB::LSML0DB, &peer().smallDb());
    OpenOne(CMappingLMDB::FULLDB, &peer().fullDb());
    return table();
  }

  void OpenTmp() { OpenOne(CMappingLMDB::TMPDB, &peer().tmpDb()); }

  /// What a database holds at the end of the table's life.
  Records RecordsAtTheEnd(const char* name) {
    if (table_ != nullptr) {
      peer().ClearDBEnv(&peer().tmpDb());
      Destroy();
    }
    return ReadPlainDatabase(File(name));
  }

  /// `text` with `to` for `from`, which stands in it once if at all.
  static std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
  }

  /// The log so far, with PTR for each address.
  std::vector<std::string> LinesWithoutAddresses() {
    std::vector<std::string> lines = Lines();
    for (std::string& line : lines) {
      line = WithAddressesNamed(line, [](const std::string&) { return "PTR"; });
    }
    return lines;
  }

  /// How the table's lock is held.
  Held TableLock() { return HowIsHeld(peer().tableLock()); }

 private:
  void OpenOne(const char* name, LMDBContext* db) {
    ASSERT_EQ(0, peer().SetupDBEnv(Path(name), db, kMapSize));
    log_.Take();
  }
};

}  // namespace zefs::test
