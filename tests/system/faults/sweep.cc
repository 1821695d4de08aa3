#include "tests/system/faults/sweep.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <iostream>
#include <lmdb.h>
#include <sstream>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "table/sys_exception.h"
#include "tests/support/figures.h"
#include "tests/support/held_lock.h"
#include "tests/support/oid.h"
#include "tests/support/property.h"
#include "tests/system/faults/memory_faults.h"
#include "tests/system/faults/silent_output.h"

namespace zefs::test {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::LMDBContext;
using Aldenta::Qnd::Morene::Zefs::SysException;

namespace {

constexpr unsigned int kWatchdogSeconds = 120;
constexpr int kTooMany = 20000;

std::string current;  // what the watchdog tells

void TellAndDie(int /*signal*/) {
  static const char text[] = "a fault has led to a hang: ";
  [[maybe_unused]] ssize_t told = ::write(STDERR_FILENO, text, sizeof(text) - 1);
  told = ::write(STDERR_FILENO, current.data(), current.size());
  told = ::write(STDERR_FILENO, "\n", 1);
  ::abort();
}

int OpenDescriptors() {
  DIR* const directory = ::opendir("/proc/self/fd");
  int count = 0;
  while (::readdir(directory) != nullptr) {
    ++count;
  }
  ::closedir(directory);
  return count;
}

/// Transactions that are open for reading on the databases of a table.
std::string Readers(SmallTable* table) {
  std::string readers;
  for (const LMDBContext* db : table->peer().dbChain()) {
    if (db->env != nullptr) {
      ::mdb_reader_list(
          db->env,
          [](const char* line, void* context) {
            *static_cast<std::string*>(context) += line;
            return 0;
          },
          &readers);
    }
  }
  std::string active;
  std::istringstream lines(readers);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() &&
        std::isdigit(static_cast<unsigned char>(line.find_last_not_of(' ') == std::string::npos
                                                    ? ' '
                                                    : line[line.find_last_not_of(' ')])) != 0) {
      active += line + '\n';
    }
  }
  return active;
}

/// What a node stands for shows from the flush on.
void ExpectSame(Bytes expected, const Bytes& shown, const char* when) {
  for (std::size_t at = 0; at < expected.size(); ++at) {
    if (expected[at].dcid == 0 && expected[at].place == shown[at].place) {
      expected[at] = shown[at];
    }
  }
  EXPECT_EQ(expected, shown) << when;
}

}  // namespace

/// What an operation does when nothing fails.
struct FaultSweep::Reference {
  Content before;
  Content after;
  std::string end;
  std::string answer;
  std::vector<int> counts;     // of the calls of each kind
  std::vector<Bytes> between;  // see Operation
};

struct FaultSweep::Case {
  const Operation& operation;
  Start start;
  const FaultKind& kind;
  const Reference& reference;
  int nth;
  int code;
  bool forGood;
};

FaultSweep::FaultSweep() : random_(PropertySeed()) {
  const char* const every = std::getenv("ZEFS_TEST_EVERY_CALL");
  everyCall_ = every != nullptr && std::strcmp(every, "0") != 0;
  std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << '\n';
  ::signal(SIGALRM, TellAndDie);
}

void FaultSweep::Prepare(const Operation& operation, SmallTable* table) {
  if (operation.isLoaded) {
    table->Load();
    table->WriteCache();
    table->TakeReferences();
  }
  if (operation.prepare) {
    operation.prepare(*table);
  }
}

void FaultSweep::SweepRemovedDirectories() {
  long runs = 0;
  for (const Operation& operation : PersistentOperations()) {
    for (const Start start : {Start::kMerged, Start::kFailedMerge}) {
      RunWithoutDirectory(operation, start);
      ++runs;
    }
  }
  TellFigure("operations on a removed directory", runs);
}

void FaultSweep::RunWithoutDirectory(const Operation& operation, Start start) {
  current = operation.name + " without a directory";
  SCOPED_TRACE(current);
  ::alarm(kWatchdogSeconds);
  ResetSettings();
  const int descriptors = OpenDescriptors();
  {
    SmallTable table(templates_, start);
    Prepare(operation, &table);
    fs::remove_all(table.directory());
    const SilentOutput silent;
    const std::string end = EndOf([&] { return operation.run(table); }, ENOENT);
    const Told& told = ToldOf(operation.name);
    // Whether a table is there is an answer, and two operations are never carried out.
    Ends allowed = {"0", operation.name == "GetMapIndexSet" ? "-1" : "throws the number 0"};
    allowed.insert(told.lmdb.begin(), told.lmdb.end());
    allowed.insert(told.file.begin(), told.file.end());
    EXPECT_TRUE(allowed.count(end) != 0) << end;
    ResetSettings();
    if (operation.isLoaded && !operation.endsObject) {
      EXPECT_EQ(Held::kNot, HowIsHeld(table.peer().rwLock()));
      EXPECT_EQ(Held::kNot, HowIsHeld(table.peer().tableLock()));
      EXPECT_FALSE(table.peer().merging());
      // What is open is there for as long as it is; a merge may have lost it.
      const bool lost = !table.peer().smallDb().opened || !table.peer().fullDb().opened;
      EXPECT_EQ(lost ? "throws 0" : "0",
                EndOf([&] { return table.LookAtBytes() == Bytes{} ? 1 : 0; }, 0));
      EXPECT_TRUE(!lost || MayRunMerge(operation, start));
    }
  }
  EXPECT_EQ(descriptors, OpenDescriptors()) << "all descriptors are closed";
  ::alarm(0);
}

FaultSweep::Reference FaultSweep::Undisturbed(const Operation& operation, Start start) {
  ResetSettings();
  Reference reference;
  SmallTable table(templates_, start);
  Prepare(operation, &table);
  if (operation.isLoaded) {
    reference.before = table.Look();
    if (!operation.prepare) {
      EXPECT_EQ(ExpectedBefore(start), reference.before.bytes);
    }
  }
  {
    const FaultWatch watch(table.root(), false);
    const SilentOutput silent;
    reference.end = EndOf([&] { return operation.run(table); }, 0);
    const MemoryFaults::Spared spared;
    for (const FaultKind& kind : FaultKinds()) {
      reference.counts.push_back(kind.count());
    }
  }
  ResetSettings();
  reference.answer = table.answer;
  if (operation.isLoaded && !operation.endsObject && !operation.removesFiles) {
    reference.after = table.Look();
    if (operation.between) {
      reference.between = operation.between(reference.before.bytes, reference.after.bytes, start);
    }
  }
  return reference;
}

void FaultSweep::Sweep(Group group, Domain domain) {
  static constexpr const char* kCalls[] = {"LMDB calls", "system calls", "allocations"};
  for (const Operation& operation : PersistentOperations()) {
    if (operation.group != group) {
      continue;
    }
    for (const Start start : {Start::kMerged, Start::kFailedMerge, Start::kNothing}) {
      if (start == Start::kNothing && group != Group::kLife) {
        continue;
      }
      const long before = fired_;
      SweepOperation(operation, start, domain);
      std::cout << "  " << operation.name << " (" << NameOf(start) << "): " << fired_ - before
                << '\n';
    }
  }
  TellFigure(std::string("faults injected into ") + kCalls[static_cast<int>(domain)], fired_);
}

void FaultSweep::SweepOperation(const Operation& operation, Start start, Domain domain) {
  const Reference reference = Undisturbed(operation, start);
  ToldOf(operation.name);  // is made on its first use, and lasts
  // About so many of a kind, unless every call fails. A merge makes most kinds of calls, and every
  // run of one ends in more.
  const bool isLong = operation.group == Group::kMerge || operation.group == Group::kFlush;
  const int points = (isLong ? 1 : 3) * (domain == Domain::kMemory ? 4 : 1);
  for (std::size_t i = 0; i < FaultKinds().size(); ++i) {
    const FaultKind& kind = FaultKinds()[i];
    const int count = reference.counts[i];
    if (kind.domain != domain || count == 0) {
      continue;
    }
    const int stride = everyCall_ ? 1 : std::max(1, count / points);
    const auto step = [&] {
      return everyCall_ ? 1
                        : 1 + static_cast<int>(random_() % static_cast<unsigned>(2 * stride - 1));
    };
    for (int nth = everyCall_ ? 1 : step(); nth < kTooMany; nth += step()) {
      bool fired = false;
      std::size_t pick = random_() % (2 * kind.codes.size());
      pick = kind.codes[pick / 2] == EINTR ? pick - pick % 2 : pick;
      for (std::size_t c = 0; c < 2 * kind.codes.size(); ++c) {
        const bool forGood = c % 2 == 1;
        if (forGood && kind.codes[c / 2] == EINTR) {
          continue;  // interrupted for ever: whoever tries again does so for ever
        }
        if (everyCall_ || c == pick) {
          fired = Run({operation, start, kind, reference, nth, kind.codes[c / 2], forGood});
          fired_ += fired ? 1 : 0;
        }
        if (HasFatalFailure()) {
          return;
        }
      }
      if (!fired) {
        break;
      }
    }
  }
}

bool FaultSweep::Run(const Case& c) {
  std::ostringstream name;
  name << c.operation.name << " (" << NameOf(c.start) << "), " << c.kind.name << " number " << c.nth
       << (c.forGood ? " and all after it fail" : " fails") << " with " << c.code;
  current = name.str();
  SCOPED_TRACE(current);
  ::alarm(kWatchdogSeconds);
  ResetSettings();
  const int descriptors = OpenDescriptors();
  const long blocks = MemoryFaults::Live();
  bool fired = false;
  {
    SmallTable table(templates_, c.start);
    Prepare(c.operation, &table);
    std::string end;
    std::vector<refhost::LogRecord> lines;
    {
      std::optional<refhost::LogRecorder> log;
      if (c.kind.domain != Domain::kMemory) {
        log.emplace(kLogRare);
      }
      const SilentOutput silent;
      const FaultWatch watch(table.root(), c.kind.domain == Domain::kMemory);
      c.kind.arm(c.nth, c.code, c.forGood);
      end = EndOf([&] { return c.operation.run(table); }, c.code);
      fired = FaultWatch::Fired();
      const MemoryFaults::Spared spared;
      lines = log ? log->Take() : std::vector<refhost::LogRecord>();
    }
    ResetSettings();
    if (fired) {
      // The commit of a new table's version is the one failure that a load throws without a line.
      const bool isOfVersion = c.operation.isLoad && c.start == Start::kNothing && c.nth == 3 &&
                               c.kind.name == "mdb_txn_commit";
      if (c.kind.domain == Domain::kLmdb && end != c.reference.end && !c.operation.isSilent &&
          !isOfVersion) {
        EXPECT_FALSE(lines.empty()) << "a failure is logged";
      }
      try {
        Check(c, &table, end);
      } catch (const std::exception& e) {
        ADD_FAILURE() << "ended with " << end << ", and then: " << e.what();
      }
    } else {
      EXPECT_EQ(c.reference.end, end);
    }
  }
  EXPECT_EQ(descriptors, OpenDescriptors()) << "all descriptors are closed";
  EXPECT_TRUE(HasFailure() || c.operation.keepsMemory || blocks == MemoryFaults::Live())
      << MemoryFaults::Live() - blocks << " blocks of memory are lost";
  ::alarm(0);
  return fired;
}

void FaultSweep::CheckEnd(const Case& c, const std::string& end) {
  if (end == c.reference.end) {
    return;
  }
  const Told& operation = ToldOf(c.operation.name);
  const Ends& told = c.kind.domain == Domain::kLmdb   ? operation.lmdb
                     : c.kind.domain == Domain::kFile ? operation.file
                                                      : operation.memory;
  const bool outOfMemory = c.kind.domain == Domain::kMemory && end == "throws bad_alloc";
  EXPECT_TRUE(outOfMemory || told.count(end) != 0) << "ended with " << end;
}

void FaultSweep::Check(const Case& c, SmallTable* table, const std::string& end) {
  CheckEnd(c, end);
  if (c.operation.endsObject) {
    CheckStoredIn(c, table->directory(), table->type());
    return;
  }
  if (!c.operation.isLoaded) {
    CheckLoad(c, table, c.operation.isLoad && end.find("throws") == std::string::npos);
    return;
  }
  ASSERT_EQ(Held::kNot, HowIsHeld(table->peer().rwLock()));
  ASSERT_EQ(Held::kNot, HowIsHeld(table->peer().tableLock()));
  ASSERT_EQ(Held::kNot, HowIsHeld(table->peer().prefetchLock()));
  table->peer().WaitingForMerge();
  ASSERT_FALSE(table->peer().merging());
  ASSERT_EQ("", Readers(table)) << "a transaction is still open";
  const bool outOfMemory = end == "throws bad_alloc";
  if (outOfMemory && c.operation.outOfMemory == OutOfMemory::kDestroyOnly) {
    table->Destroy();
    CheckStoredIn(c, table->directory(), table->type());
    return;
  }
  if (c.operation.removesFiles) {
    EXPECT_EQ(0, table->table().remove(table->directory()));
    EXPECT_FALSE(fs::exists(table->directory()));
    return;
  }
  try {
    CheckAnswers(c, table, end);
  } catch (const SysException& e) {
    // LMDB refuses an environment whose writes have failed until it is opened again, and a merge
    // may lose a database.
    const bool lost = !table->peer().smallDb().opened || !table->peer().fullDb().opened;
    EXPECT_TRUE((c.kind.domain != Domain::kLmdb && e.code == MDB_PANIC) ||
                (lost && MayRunMerge(c.operation, c.start)))
        << e.code;
    table->Destroy();
    CheckStoredIn(c, table->directory(), table->type());
    return;
  }
  CheckRepeated(c, table);
  CheckGoesOn(table);
}

void FaultSweep::CheckLoad(const Case& c, SmallTable* table, bool isSetUp) {
  const auto check = [&] {
    const Bytes bytes = table->LookAtBytes();
    EXPECT_TRUE(bytes == ExpectedStored(c.start) || bytes == ExpectedStored(c.start, false))
        << testing::PrintToString(bytes);
  };
  if (isSetUp) {
    try {
      check();
    } catch (const SysException& e) {
      EXPECT_TRUE(c.kind.domain != Domain::kLmdb && e.code == MDB_PANIC) << e.code;
    }
  }
  table->Destroy();
  table->Load();  // a second try is a second object
  check();
  CheckGoesOn(table);
}

/// A tmp database that is open makes every flush start a merge.
bool FaultSweep::MayRunMerge(const Operation& operation, Start start) {
  return operation.runsMerge || (operation.group == Group::kFlush && start == Start::kFailedMerge);
}

void FaultSweep::CheckAnswers(const Case& c, SmallTable* table, const std::string& end) {
  const Content content = table->Look();
  const Reference& reference = c.reference;
  const bool succeeded = end == reference.end;
  std::vector<Bytes> allowed = {reference.after.bytes};
  if (!succeeded || c.operation.mayAnswerLess) {
    allowed.push_back(reference.before.bytes);
    allowed.insert(allowed.end(), reference.between.begin(), reference.between.end());
  }
  if (std::find(allowed.begin(), allowed.end(), content.bytes) == allowed.end()) {
    ADD_FAILURE() << "ended with " << end << " and shows " << testing::PrintToString(content.bytes)
                  << "\nbefore " << testing::PrintToString(reference.before.bytes) << "\nafter "
                  << testing::PrintToString(reference.after.bytes);
  }
  if (succeeded && !c.operation.mayAnswerLess) {
    EXPECT_EQ(reference.answer, table->answer);
    if (!MayRunMerge(c.operation,
                     c.start)) {  // which finds how far the file reaches, unless it fails
      EXPECT_EQ(reference.after.fileSize, content.fileSize);
    }
    EXPECT_EQ(reference.after.doid, content.doid);
    EXPECT_EQ(reference.after.version, content.version);
  } else {
    const auto [least, most] = std::minmax(reference.before.fileSize, reference.after.fileSize);
    EXPECT_TRUE(least <= content.fileSize && content.fileSize <= most) << content.fileSize;
    EXPECT_TRUE(content.doid == reference.after.doid || content.doid == reference.before.doid)
        << content.doid;
    EXPECT_TRUE(content.version == reference.after.version ||
                content.version == reference.before.version);
  }
}

void FaultSweep::CheckRepeated(const Case& c, SmallTable* table) {
  if (c.operation.beforeRepeat) {
    c.operation.beforeRepeat(*table);
  }
  {
    const SilentOutput silent;
    EXPECT_EQ(c.reference.end, EndOf([&] { return c.operation.run(*table); }, 0)) << "once more";
  }
  ResetSettings();
  ExpectSame(c.reference.after.bytes, table->LookAtBytes(), "once more");
}

void FaultSweep::CheckGoesOn(SmallTable* table) {
  const auto oid = Oid(150);
  table->MakeAllReady();
  table->table().insert(440, 450, &oid, 7, 0, nullptr, -3, nullptr);
  const Bytes expected = table->LookAtBytes();
  std::set<void*> released;
  table->table().checkAndBackfillObjectID(&released, true, "scope", "share", nullptr, nullptr);
  table->peer().WaitingForMerge();
  const Bytes flushed = table->LookAtBytes();
  ExpectSame(expected, flushed, "after a flush");
  EXPECT_EQ(0, table->peer().MergeAndSwitch());
  EXPECT_FALSE(table->peer().tmpDb().opened);
  EXPECT_EQ(flushed, table->LookAtBytes());
  EXPECT_FALSE(fs::exists(table->directory() + "/tmp.mdb"));
  EXPECT_FALSE(fs::exists(table->directory() + "/mergedb"));
  // What a failed flush has left in the cache for good is not stored.
  std::vector<bool> cached(kFileBytes);
  for (const auto& [end, entry] : table->peer().extCache()) {
    for (long at = entry.startOffset; at < end && at < kFileBytes; ++at) {
      cached[static_cast<std::size_t>(at)] = true;
    }
  }
  const std::string directory = table->directory();
  const std::string type = table->type();
  table->Destroy();
  const Content loaded = LoadedFrom(directory, type);
  for (std::size_t at = 0; at < flushed.size(); ++at) {
    if (!cached[at]) {
      ASSERT_EQ(flushed[at], loaded.bytes[at]) << at << " after a load";
    }
  }
}

void FaultSweep::CheckStoredIn(const Case& c, const std::string& directory,
                               const std::string& type) {
  const Content loaded = LoadedFrom(directory, type);
  std::vector<Bytes> known = Levels(c.start);
  known.push_back(c.reference.before.bytes);
  known.push_back(c.reference.after.bytes);
  known.push_back(ExpectedBefore(c.start));
  for (std::size_t at = 0; at < loaded.bytes.size(); ++at) {
    const Byte& byte = loaded.bytes[at];
    ASSERT_TRUE(byte == Byte{} || std::any_of(known.begin(), known.end(),
                                              [&](const Bytes& bytes) {
                                                return bytes[at].dcid == byte.dcid &&
                                                       bytes[at].place == byte.place;
                                              }))
        << at << " was never written: " << byte.dcid << ' ' << byte.place << ' ' << byte.dcOffset;
  }
}

}  // namespace zefs::test
