#include <algorithm>

#include <boost/filesystem/operations.hpp>

#include "tests/system/model/steps.h"

// A table as a set of files, and its lives.

namespace zefs::test {

namespace fs = boost::filesystem;

namespace {

constexpr long kSpecialItems = 4;  // of one database, not counted in a size

}  // namespace

void Steps::LoadStored() {
  model_.Load();
  const bool givenUp = Overlaps(model_.disk().small.extents);
  if (live()) {
    tables_->cache.Clear();
    tables_->cache.Follow(&model_.nodes());
    Equal("load in memory", 0, tables_->memory ? tables_->memory->load("", false, "") : 0);
    Equal("load", 0, tables_->Load(model_.settings().type));
    tally_.reloads += 1;
  }
  if (givenUp) {
    // The replay of a journal has left extents that overlap, of which nothing is promised: the host
    // drops the contents.
    model_.Truncate(0);
    if (live()) {
      Equal("truncate after a replay", 0, tables_->stored->truncate(0, nullptr));
    }
  }
  model_.TakeRebuilt();
  if (live()) {
    Rebuild();
  }
}

void Steps::Rebuild() {
  tables_->MakeMemory(model_.tree());
}

bool Steps::Reload() {
  const bool tmp = model_.TmpIsOpen();
  if (tmp) {
    return false;  // it stays open: only another process may load the table
  }
  End();
  LoadStored();
  return true;
}

bool Steps::Remove() {
  const bool tmp = model_.TmpIsOpen();
  model_.Remove();
  if (live()) {
    Equal("remove in memory", 0, tables_->memory->remove(tables_->path));
    Equal("remove", 0, tables_->stored->remove(tables_->path));
    Expect(!fs::exists(tables_->path), "a removed directory");
    tables_->stored.reset();
  }
  if (tmp) {
    return false;
  }
  LoadStored();
  return true;
}

void Steps::Move() {
  model_.Move();
  if (!live()) {
    return;
  }
  const std::string from = tables_->path;
  tables_->path = from.back() == '2' ? from.substr(0, from.size() - 1) : from + '2';
  tables_->memory->UpdateExtPath(tables_->path);
  tables_->stored->UpdateExtPath(tables_->path);
  fs::rename(from, tables_->path);
}

void Steps::Snapshot() {
  if (!live()) {
    return;
  }
  const std::string to = tables_->path + "-snapshot";
  fs::remove_all(to);
  Equal("snapshot in memory", 0, tables_->memory->Snapshot(tables_->path, to));
  Equal("snapshot", 0, tables_->stored->Snapshot(tables_->path, to));
  // A copy of the two databases that last: it loads as a table without a journal.
  Database full = model_.disk().full;
  Database small = model_.disk().small;
  small.counter = small.counter.value_or(0);  // what a load adds if it is not there
  small.doid = small.doid.value_or(Doid{});
  const auto copy = tables_->makers.stored(&tables_->cache, "PROVISION");
  Equal("load of a snapshot", 0, copy->load(to, false, ""));
  Equal("file size of a snapshot", std::max(full.fileSize.value_or(0), small.fileSize.value_or(0)),
        copy->getFileSize());
  Equal("size of a snapshot",
        std::max(static_cast<long>(full.Records() + small.Records()) - kSpecialItems, 0L),
        copy->size());
  auto at = copy->begin();
  for (const Seen& seen : AllOf({&small.extents, &full.extents})) {
    CheckSeen("extent of a snapshot", seen, copy.get(), at);
    ++at;
  }
  Expect(at == copy->end(), "extents of a snapshot behind the last");
}

void Steps::SetVersion(const Operation& operation) {
  const Version version{static_cast<std::int32_t>(1 + operation.pick % 3),
                        static_cast<std::int32_t>(operation.pick % 5)};
  model_.SetVersion(version);
  if (live()) {
    Equal("set version", 0, tables_->lmdb().setExtMapVersion({version[0], version[1]}));
    const auto found = tables_->lmdb().getExtMapVersion();
    Expect(found.major == version[0] && found.minor == version[1], "version");
  }
}

void Steps::CommitFlag(const Operation& operation) {
  if (!live()) {
    return;
  }
  const bool flag = operation.pick % 2 == 0;
  for (CMappingTable* table : {tables_->memory.get(), tables_->stored.get()}) {
    table->setCommit(flag);
    Equal("commit flag", flag, table->needCommit());
  }
}

void Steps::Save() {
  if (live()) {
    Equal("save in memory", 0, tables_->memory->save(tables_->path, 0));
    Equal("save", 0, tables_->stored->save(tables_->path, 0));
  }
}

}  // namespace zefs::test
