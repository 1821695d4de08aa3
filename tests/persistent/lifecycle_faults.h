#pragma once

#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "table/sys_exception.h"
#include "tests/persistent/lifecycle_fixture.h"
#include "tests/support/fault_injection.h"

// Table directories on which a load fails, or dies, at each of its calls.

namespace zefs::test {

/// Runs `life` in a child process and returns what it returns, or as much as it has told before it
/// died; `*status` is its wait status.
inline std::string FromChild(const std::function<std::string()>& life, int* status) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(0, ::pipe(ends));
  *status = RunInChild([&] {
    const std::string said = life();
    EXPECT_EQ(static_cast<ssize_t>(said.size()), ::write(ends[1], said.data(), said.size()));
  });
  ::close(ends[1]);
  std::string said;
  for (char byte = 0; ::read(ends[0], &byte, 1) == 1;) {
    said += byte;
  }
  ::close(ends[0]);
  return said;
}

/// The same for a life that ends well.
inline std::string FromChild(const std::function<std::string()>& life) {
  int status = 0;
  std::string said = FromChild(life, &status);
  EXPECT_TRUE(EndedWell(status));
  return said;
}

/// A directory as an earlier life may leave it.
enum class Left {
  kNothing,     ///< there is none yet
  kJournal,     ///< small database, finished merge without a full one, and a journal
  kTmpDatabase  ///< small, full and tmp database
};

class LoadFaultsTest : public LifecycleTest {
 protected:
  static std::string TypeOf(Left left) { return left == Left::kJournal ? "GENERIC" : "PROVISION"; }

  /// Makes the directory anew.
  void Prepare(Left left) {
    boost::filesystem::remove_all(Directory());
    if (left == Left::kNothing) {
      return;
    }
    const PlainRecord doid = {kPlainDoidKey, SpecialBytes(std::uint64_t{65}, DigestOf(3))};
    Write("lsml0.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{44})},
                        {kPlainCommitCounterKey, SpecialBytes(std::int64_t{5})},
                        doid,
                        Stored(0, 10, 70)});
    Write(left == Left::kJournal ? "mergedb" : "data.mdb",
          {{kPlainVersionKey, SpecialBytes(std::int32_t{1}, 5)}, Stored(10, 20, 72)});
    if (left == Left::kJournal) {
      WriteBytes(File("journal"), JournalBytes({{kOpAdd, 0, 10, 70}, {kOpDel, 20, 30, 71}}));
    } else {
      Write("tmp.mdb", {Stored(30, 40, 73)});
    }
  }

  /// Loads the directory, which must succeed, and describes all that a table shows of it.
  std::string Content(Left left) {
    CMappingLMDB& table = Load(TypeOf(left));
    std::string content = "size " + std::to_string(table.getFileSize());
    content += ", version " + std::to_string(table.getExtMapVersion().major) + '.' +
               std::to_string(table.getExtMapVersion().minor);
    ObjectID doid;
    content += ", do id " + std::to_string(table.GetDOID(&doid));
    content += ' ' + std::to_string(doid.dcid);
    content += ", counter " + std::to_string(peer().commitCounter());
    for (const std::string& extent : Walk(table)) {
      content += ", " + extent;
    }
    Destroy();
    return content;
  }

  static std::string Expected(Left left) {
    switch (left) {
      case Left::kNothing:
        return "size 0, version 2.0, do id -1 0, counter 0";
      case Left::kJournal:
        return "size 44, version 1.5, do id 0 65, counter 5, [10, 20) 72 72000 720, "
               "[20, 30) 71 0 -1";
      case Left::kTmpDatabase:
        return "size 44, version 1.5, do id 0 65, counter 5, [0, 10) 70 70000 700, "
               "[10, 20) 72 72000 720, [30, 40) 73 73000 730";
    }
    return "";
  }
  /// Of kJournal, when the records of the journal were read and then not applied.
  static std::string WithoutTheJournal() {
    return "size 44, version 1.5, do id 0 65, counter 5, [0, 10) 70 70000 700, "
           "[10, 20) 72 72000 720";
  }
};

}  // namespace zefs::test
