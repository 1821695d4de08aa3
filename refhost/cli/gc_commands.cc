#include "refhost/cli/gc_commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "refhost/cli/command_support.h"
#include "refhost/cli/exit_status.h"
#include "refhost/cli/printable.h"
#include "refhost/cli/store_support.h"
#include "refhost/gc/compactor.h"
#include "refhost/gc/garbage_collector.h"

namespace zefs::refhost {

namespace {

constexpr const char* kStatuses =
    "\nExit status: 0 fine; 1 something in the store is damaged; 2 the command cannot run or was "
    "interrupted.";

constexpr unsigned kMostPerCent = 100;

struct Given {
  std::string store;
  unsigned below = kUsualSparseBelow;
  bool json = false;
};

CLI::App* AddCommand(CLI::App& app, const char* name, const char* what, Given* given) {
  CLI::App* const command = app.add_subcommand(name, std::string(what) + kStatuses);
  command->add_option("STORE", given->store, "Directory of the store")->required();
  command->add_flag("--json", given->json, "Print the result as JSON");
  return command;
}

void CountTables(std::uint64_t asked, std::uint64_t skipped, Report* report) {
  report->Count("tables_asked", "tables asked what they refer to", asked);
  report->Count("tables_skipped", "tables skipped, unchanged since they were asked", skipped);
}

nlohmann::ordered_json TellDamaged(const std::vector<std::string>& damaged, std::ostream& err) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const std::string& one : damaged) {
    err << "damage, left where it is: " << Printable(one) << '\n';
    list.push_back(one);
  }
  return list;
}

}  // namespace

int GcAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err) {
  return RunCommand("gc", err, [&] {
    const Stopwatch watch;
    DurableStore opened(store, Existing());
    Collected collected;
    WithProgress([&](const Progress& progress) { collected = CollectGarbage(&opened, progress); });
    opened.CloseFiles();
    RequireSound(opened.nodes());
    Report report;
    CountTables(collected.tablesAsked, collected.tablesSkipped, &report);
    report.Count("entries_dropped", "entries of the index dropped", collected.entriesDropped);
    report.Count("containers_removed", "containers removed", collected.containersRemoved);
    report.Bytes("bytes_reclaimed", "bytes in them", collected.bytesReclaimed);
    report.Count("containers_kept", "containers kept", collected.containersKept);
    report.Bytes("bytes_kept", "bytes in them", collected.bytesKept);
    report.Seconds("seconds", "time in all", watch.seconds());
    Print("collected", report, json, out);
    return kExitFine;
  });
}

int CompactAndReport(const std::string& store, unsigned below, bool json, std::ostream& out,
                     std::ostream& err) {
  return RunCommand("compact", err, [&] {
    const Stopwatch watch;
    DurableStore opened(store, Existing());
    Compacted compacted;
    WithProgress([&](const Progress& progress) { compacted = Compact(&opened, below, progress); });
    opened.CloseFiles();
    RequireSound(opened.nodes());
    const double seconds = watch.seconds();
    Report report;
    CountTables(compacted.tablesAsked, compacted.tablesSkipped, &report);
    report.Count("containers_sparse", "sparse containers", compacted.sparseContainers);
    report.Bytes("sparse_bytes", "bytes in them, for gc to reclaim", compacted.sparseBytes);
    report.Count("objects_moved", "objects moved", compacted.objectsMoved);
    report.Bytes("bytes_moved", "bytes moved", compacted.bytesMoved);
    report.Count("containers_written", "containers written", opened.objects().containers());
    report.Count("tables_rewritten", "tables brought up to date", compacted.tablesRewritten);
    report.Count("extents_rewritten", "extents in them", compacted.extentsRewritten);
    report.Data("damaged", TellDamaged(compacted.damaged, err));
    report.Data("below", below);
    report.Seconds("seconds", "time in all", seconds);
    report.ByteRate("bytes_per_second", "compact", PerSecond(compacted.bytesMoved, seconds));
    Print("compacted", report, json, out);
    return compacted.damaged.empty() ? kExitFine : kExitDifference;
  });
}

void AddGcCommands(CLI::App& app, int* exitStatus) {
  const auto gc = std::make_shared<Given>();
  AddCommand(app, "gc",
             "Remove from a store what no file refers to: entries of the index, and containers of "
             "which nothing is used.",
             gc.get())
      ->callback([gc, exitStatus] {
        *exitStatus = GcAndReport(gc->store, gc->json, std::cout, std::cerr);
      });
  const auto compact = std::make_shared<Given>();
  CLI::App* const command = AddCommand(
      app, "compact",
      "Move what is used of sparse containers to new ones. The sparse ones are then for gc to "
      "remove.",
      compact.get());
  command
      ->add_option("--below", compact->below,
                   "Per cent of a container in use below which it is sparse, 1 to 100")
      ->check(CLI::Range(1U, kMostPerCent))
      ->capture_default_str();
  command->callback([compact, exitStatus] {
    *exitStatus =
        CompactAndReport(compact->store, compact->below, compact->json, std::cout, std::cerr);
  });
}

}  // namespace zefs::refhost
