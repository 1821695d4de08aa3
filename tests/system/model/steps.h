#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/system/model/model.h"
#include "tests/system/model/tables.h"

namespace zefs::test {

/// A table does not give what the model says.
class DifferenceFound : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What was done, over all processes that share it.
struct Tally {
  std::atomic<std::uint64_t> programs{0};
  std::atomic<std::uint64_t> operations{0};
  std::atomic<std::uint64_t> compares{0};
  std::atomic<std::uint64_t> flushes{0};
  std::atomic<std::uint64_t> merges{0};
  std::atomic<std::uint64_t> reloads{0};
  std::atomic<std::uint64_t> crashes{0};
  std::atomic<std::uint64_t> leftBehind{0};  ///< truncates that a tmp database has survived
  std::atomic<std::uint64_t> readings{0};    ///< look-ups beside writers
  std::atomic<std::uint64_t> differences{0};
  std::array<std::atomic<std::uint64_t>, kKinds> byKind{};
};

/// Takes the operations of a program one by one: through the model alone, or through the model and
/// two tables, which must answer as it says.
class Steps {
 public:
  /// `tables` may be null: the model alone.
  Steps(Model* model, Tables* tables, Tally* tally)
      : model_(*model), tables_(tables), tally_(*tally) {}

  /// A life begins: the stored table is loaded, and the one in memory is made from what it shows.
  void Begin();
  /// It ends well.
  void End();

  /// False if the life has to end with this operation: another process goes on behind it.
  bool Take(const Operation& operation);

  /// Everything at once: each extent, the look-ups around both its ends, sizes and references.
  void CheckAll();

 private:
  bool live() const { return tables_ != nullptr; }
  bool Goes(const Operation& operation);

  // --- steps_writes.cc
  void Insert(const Operation& operation);
  void Append(const Operation& operation);
  void Update(const Operation& operation);
  void Truncate(long size);
  void SetFileSize(long size);
  void MakeReady(int node);
  void MakeReady(const Operation& operation);
  WriteOf AnyWrite(const Operation& operation);
  void Flush(const Operation& operation);
  void FlushUnlocked(const Operation& operation);
  void Merge(const Operation& operation);
  void ForgetNodes();
  void Backfill(const Operation& operation);
  void RefreshOffset(const Operation& operation);

  // --- steps_reads.cc
  void LookUp(const Operation& operation);
  void LookUpAt(long offset);
  void Walk(const Operation& operation);
  void WalkBack(const Operation& operation);
  void Sizes();
  void MakePlan(const Operation& operation);
  void CheckSeen(const char* what, const std::optional<Seen>& expected, CMappingTable* table,
                 const CMappingTable::iterator& found);

  // --- steps_references.cc
  void SetObjectId(const Operation& operation);
  void ListIds(const Operation& operation);
  void RewriteIds(const Operation& operation);
  void MemoryReferences();
  void StoredReferences();
  void Filter();
  void SetDoid(const Operation& operation);
  void GetDoid();
  void IsChanged();
  void WritingNodes(const Operation& operation);

  // --- steps_files.cc
  void CommitFlag(const Operation& operation);
  void Save();
  void SetVersion(const Operation& operation);
  void Snapshot();
  void Move();
  bool Remove();
  bool Reload();
  void LoadStored();
  void Rebuild();

  /// Counts a comparison, and throws if it failed.
  void Expect(bool same, const std::string& what);
  template <typename A, typename B>
  void Equal(const char* what, const A& expected, const B& actual) {
    ++compares_;
    if (!(expected == actual)) {
      Fail(std::string(what) + ": expected " + std::to_string(expected) + ", got " +
           std::to_string(actual));
    }
  }
  [[noreturn]] static void Fail(const std::string& what);

  Model& model_;
  Tables* tables_;
  Tally& tally_;
  std::uint64_t compares_ = 0;
};

}  // namespace zefs::test
