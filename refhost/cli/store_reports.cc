#include <ostream>

#include "refhost/cli/command_support.h"
#include "refhost/cli/exit_status.h"
#include "refhost/cli/printable.h"
#include "refhost/cli/report.h"
#include "refhost/cli/store_commands.h"
#include "refhost/cli/store_support.h"
#include "refhost/durable/exporter.h"
#include "refhost/durable/importer.h"
#include "refhost/durable/store_figures.h"
#include "refhost/durable/store_verifier.h"
#include "refhost/store/store_error.h"
#include "table/fingerprint.h"

// What the commands on a store do, and how they tell it.

namespace zefs::refhost {

namespace {

void AddNodes(const NodeCounts& nodes, Report* report) {
  report->Count("nodes", "nodes of the data cache", nodes.made);
  report->Count("nodes_released", "nodes released by tables, once each", nodes.released);
}

void AddReadAhead(const ReadAheadFigures& figures, Report* report) {
  report->Count("prefetch_plans", "plans for reading ahead", figures.plans);
  report->Count("prefetch_containers", "containers fetched ahead", figures.containers);
  report->Bytes("prefetch_fetched_bytes", "fetched ahead", figures.fetchedBytes);
  report->Count("prefetch_hits", "extents read from what was fetched ahead", figures.hits);
  report->Count("prefetch_misses", "extents read from their container", figures.misses);
}

/// A line for each volume, and for machines a list of them.
void AddVolumes(const std::vector<std::string>& volumes, const std::vector<std::uint64_t>& tables,
                Report* report) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    list.push_back({{"path", volumes[i]}, {"tables", tables[i]}});
    report->Shown("tables on volume " + std::to_string(i + 1),
                  FormatCount(tables[i]) + " in " + Printable(volumes[i]));
  }
  report->Data("volumes", std::move(list));
}

/// Tells at its end what was skipped, whatever the end.
struct SkippedTeller {
  const std::vector<Skipped>& skipped;
  std::ostream& err;
  ~SkippedTeller() { TellSkipped(skipped, err); }
};

}  // namespace

int PutAndReport(const PutOptions& options, bool json, std::ostream& out, std::ostream& err) {
  return RunCommand("put", err, [&] {
    const Stopwatch watch;
    ImportResult result;
    const SkippedTeller teller{result.skipped, err};
    options.tables.Apply();
    DurableStoreOptions storeOptions;
    storeOptions.format = options.format;
    DurableStore store(options.store, storeOptions);
    WithProgress(
        [&](const Progress& progress) { ImportFiles(options.paths, &store, progress, &result); });
    store.CloseFiles();
    RequireSound(store.nodes());
    if (result.files == 0) {
      throw StoreError("no readable file was found, " + std::to_string(result.skipped.size()) +
                           " skipped, " + std::to_string(result.notRegular) +
                           " passed over as not regular",
                       0);
    }
    const double seconds = watch.seconds();
    Report report;
    report.Count("files", "files", result.files);
    report.Count("skipped", "skipped, unreadable", result.skipped.size());
    report.Count("not_regular", "passed over, not regular", result.notRegular);
    report.Data("skipped_files", SkippedAsJson(result.skipped));
    report.Bytes("bytes", "read from files", result.bytes);
    report.Bytes("stored_bytes", "kept of that", store.objects().storedBytes());
    report.Ratio("dedup_ratio", "dedup ratio",
                 DedupRatio(result.bytes, store.objects().storedBytes()));
    report.Count("containers_written", "containers written", store.objects().containers());
    report.Count("flushes", "flushes of tables", store.flushes());
    report.Count("merges", "merges of tables", store.merges());
    report.Count("syncs", "syncs of the store", store.syncs());
    AddNodes(store.nodes(), &report);
    report.Seconds("seconds", "time in all", seconds);
    report.ByteRate("bytes_per_second", "put", PerSecond(result.bytes, seconds));
    Print("put", report, json, out);
    return kExitFine;
  });
}

int GetAndReport(const std::string& store, const std::string& name, const std::string& destination,
                 bool json, std::ostream& out, std::ostream& err,
                 const ReadAheadOptions& readAhead) {
  return RunCommand("get", err, [&] {
    const Stopwatch watch;
    DurableStore opened(store, Existing(readAhead));
    std::uint64_t bytes = 0;
    WithProgress([&](const Progress& progress) {
      bytes = ExportFile(&opened, name, destination, progress);
    });
    Report report;
    report.Words("name", "file", name);
    report.Words("destination", "written to", destination);
    report.Bytes("bytes", "bytes", bytes);
    AddReadAhead(opened.readAheadFigures(), &report);
    report.ByteRate("bytes_per_second", "get", PerSecond(bytes, watch.seconds()));
    Print("got", report, json, out);
    return kExitFine;
  });
}

int ListAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err) {
  return RunCommand("ls", err, [&] {
    const DurableStore opened(store, Existing());
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& [name, entry] : opened.Catalogued()) {
      if (json) {
        list.push_back({{"name", name},
                        {"size", entry.size},
                        {"sha256", Aldenta::Qnd::Morene::Zefs::TextOf(entry.digest).data()},
                        {"changing", entry.changing}});
      } else {
        const std::string size = FormatCount(static_cast<std::uint64_t>(entry.size));
        constexpr std::size_t kWidth = 16;
        out << std::string(kWidth - std::min(kWidth, size.size()), ' ') << size
            << (entry.changing ? " * " : "   ") << Printable(name) << '\n';
      }
    }
    if (json) {
      Report report;
      report.Data("files", std::move(list));
      out << report.Json();
    }
    return kExitFine;
  });
}

int StatAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err) {
  return RunCommand("stat", err, [&] {
    DurableStore opened(store, Existing());
    const StoreFigures figures = FiguresOf(&opened);
    Report report;
    report.Count("files", "files", figures.files);
    report.Count("changing", "written to after their last sync", figures.changing);
    report.Bytes("logical_bytes", "sizes of the files", figures.logicalBytes);
    report.Bytes("container_bytes", "bytes in containers", figures.containerBytes);
    report.Ratio("dedup_ratio", "sizes by bytes in containers",
                 DedupRatio(figures.logicalBytes, figures.containerBytes));
    report.Count("containers", "containers", figures.containers);
    report.Count("objects", "objects in the index", figures.objects);
    report.Count("extents_full", "extents in full databases", figures.records.full);
    report.Count("extents_small", "extents in small databases", figures.records.small);
    report.Count("extents_tmp", "extents in tmp databases", figures.records.tmp);
    report.Bytes("disk_bytes", "bytes on disk, all", figures.diskBytes);
    AddReadAhead(opened.formerReadAheadFigures(), &report);
    report.Data("segment_size", opened.directory().format().segmentSize);
    report.Words("table_type", "type of the tables", opened.directory().format().tableType);
    AddVolumes(opened.directory().format().volumes, figures.tables, &report);
    Print("store", report, json, out);
    return kExitFine;
  });
}

int VerifyAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err,
                    const ReadAheadOptions& readAhead) {
  return RunCommand("verify", err, [&] {
    const Stopwatch watch;
    DurableStore opened(store, Existing(readAhead));
    StoreVerification result;
    WithProgress([&](const Progress& progress) { StoreVerifier(&opened, progress).Run(&result); });
    RequireSound(opened.nodes());
    const double seconds = watch.seconds();
    Report report;
    report.Data("sound", result.problems.empty());
    nlohmann::ordered_json problems = nlohmann::ordered_json::array();
    for (const StoreProblem& problem : result.problems) {
      err << "damage in " << Printable(problem.name) << ": " << Printable(problem.text) << '\n';
      problems.push_back({{"name", problem.name}, {"what", problem.text}});
    }
    report.Data("problems", std::move(problems));
    report.Count("files", "files", result.files);
    report.Count("damaged", "files with damage", result.problems.size());
    report.Count("changing", "without a digest, written to after their last sync", result.changing);
    report.Bytes("bytes", "read through extent maps", result.bytes);
    report.Count("extents", "extents", result.extents);
    report.Count("objects", "objects fingerprinted again", result.objects);
    AddReadAhead(opened.readAheadFigures(), &report);
    report.Seconds("seconds", "time in all", seconds);
    report.ByteRate("bytes_per_second", "verify", PerSecond(result.bytes, seconds));
    Print(result.problems.empty() ? "every byte is as it was synced" : "damaged", report, json,
          out);
    return result.problems.empty() ? kExitFine : kExitDifference;
  });
}

}  // namespace zefs::refhost
