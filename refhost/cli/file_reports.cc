#include <ostream>
#include <set>

#include "refhost/cli/command_support.h"
#include "refhost/cli/exit_status.h"
#include "refhost/cli/file_commands.h"
#include "refhost/cli/report.h"
#include "refhost/cli/store_support.h"
#include "refhost/durable/durable_store.h"
#include "refhost/store/store_error.h"

// What the commands on files of a store do, and how they tell it.

namespace zefs::refhost {

namespace {

/// Opens the store, runs `change` on it, which fills the report, and closes it in order.
int ChangeAndReport(const char* command, const char* headline, const std::string& path, bool json,
                    std::ostream& out, std::ostream& err,
                    const std::function<void(DurableStore*, Report*)>& change) {
  return RunCommand(command, err, [&] {
    DurableStore store(path, Existing());
    Report report;
    change(&store, &report);
    store.CloseFiles();
    RequireSound(store.nodes());
    Print(headline, report, json, out);
    return kExitFine;
  });
}

const char* WordFor(DurableStore::TableMove move) {
  switch (move) {
    case DurableStore::TableMove::kRenamed:
      return "renamed";
    case DurableStore::TableMove::kCopied:
      return "copied";
    default:
      return "stays";
  }
}

}  // namespace

int TruncateAndReport(const std::string& store, const std::string& name, std::int64_t size,
                      bool json, std::ostream& out, std::ostream& err) {
  return ChangeAndReport(
      "truncate", "cut", store, json, out, err, [&](DurableStore* opened, Report* report) {
        const std::int64_t before = opened->SizeOf(name);
        opened->Truncate(name, size);
        opened->Sync();
        report->Words("name", "file", name);
        report->Bytes("bytes_before", "bytes before", static_cast<std::uint64_t>(before));
        report->Bytes("bytes", "bytes", static_cast<std::uint64_t>(opened->SizeOf(name)));
      });
}

int RemoveAndReport(const std::string& store, const std::vector<std::string>& names, bool json,
                    std::ostream& out, std::ostream& err) {
  return ChangeAndReport("rm", "removed", store, json, out, err,
                         [&](DurableStore* opened, Report* report) {
                           const Catalogue::Entries before = opened->Catalogued();
                           std::uint64_t bytes = 0;
                           const std::set<std::string> once(names.begin(), names.end());
                           for (const std::string& name : once) {
                             opened->Remove(name);  // none of them before the sync
                             bytes += static_cast<std::uint64_t>(before.at(name).size);
                           }
                           opened->Sync();
                           report->Count("files", "files", once.size());
                           report->Bytes("bytes", "their sizes", bytes);
                         });
}

int MoveAndReport(const std::string& store, const std::string& name, const std::string& newName,
                  bool force, bool json, std::ostream& out, std::ostream& err) {
  return ChangeAndReport(
      "mv", "moved", store, json, out, err, [&](DurableStore* opened, Report* report) {
        const bool replaced = name != newName && opened->Catalogued().count(newName) != 0;
        const DurableStore::TableMove move = opened->Rename(name, newName, force);
        report->Words("name", "file", name);
        report->Words("new_name", "now", newName);
        report->Data("replaced", replaced);
        report->Words("table", "its table", WordFor(move));
      });
}

int SnapshotAndReport(const std::string& store, const std::string& name, const std::string& copy,
                      bool json, std::ostream& out, std::ostream& err) {
  return ChangeAndReport(
      "snapshot", "copied", store, json, out, err, [&](DurableStore* opened, Report* report) {
        opened->Snapshot(name, copy);
        report->Words("name", "file", name);
        report->Words("snapshot", "snapshot", copy);
        report->Bytes("bytes", "bytes", static_cast<std::uint64_t>(opened->SizeOf(copy)));
      });
}

}  // namespace zefs::refhost
