#include "refhost/replay/replayer.h"

#include <chrono>
#include <climits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "refhost/check/work_dir.h"
#include "refhost/replay/final_state.h"
#include "refhost/replay/interval_model.h"
#include "refhost/replay/stored_unit_tables.h"
#include "refhost/replay/trace_parser.h"

namespace zefs::refhost {

namespace {

constexpr std::uint64_t kRequestsPerProgress = 1024;

/// Adds the time of its own life to a sum of seconds.
class Stopwatch {
 public:
  explicit Stopwatch(double* seconds) : seconds_(*seconds) {}
  ~Stopwatch() { seconds_ += std::chrono::duration<double>(Clock::now() - start_).count(); }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  double& seconds_;
  Clock::time_point start_ = Clock::now();
};

std::uint64_t LengthOf(const TraceRequest& request) {
  return static_cast<std::uint64_t>(request.end - request.start);
}

/// One replay: the tables, the model beside them, and the sums.
class Replayer {
 public:
  Replayer(const ReplayOptions& options, const ReplayProgress& progress)
      : options_(options), progress_(progress), trace_(options.path), map_(MakeTables()) {}

  ReplayReport Run() {
    std::string_view line;
    while (!report_.difference.has_value() && trace_.Next(&line)) {
      const auto parsed = ParseTraceLine(line);
      if (const auto* error = std::get_if<TraceLineError>(&parsed)) {
        throw TraceError(trace_.Position() + ": " + error->reason);
      }
      Perform(std::get<TraceRequest>(parsed));
      if (++report_.requests % kRequestsPerProgress == 0 && progress_) {
        progress_(trace_.BytesRead(), trace_.FileBytes());
      }
    }
    if (!report_.difference.has_value()) {
      EndWrites();
      SumUp();
    }
    return std::move(report_);
  }

 private:
  std::unique_ptr<UnitTables> MakeTables() {
    if (options_.tables == TableKind::kMemory) {
      return std::make_unique<MemoryUnitTables>(options_.makeTable);
    }
    directory_.emplace("", /*keep=*/false, "tables");
    return std::make_unique<StoredUnitTables>(directory_->data());
  }

  void EndWrites() {
    {
      const Stopwatch watch(&report_.writeSeconds);
      map_.tables().EndWrites();
    }
    report_.flushes = map_.tables().flushes();
    report_.merges = map_.tables().merges();
    if (const std::string problem = map_.tables().Problem(); !problem.empty()) {
      throw std::runtime_error(problem);
    }
  }

  void Perform(const TraceRequest& request) {
    if (request.operation == TraceRequest::Operation::kWrite) {
      Write(request);
    } else {
      Read(request);
    }
  }

  void Write(const TraceRequest& request) {
    const unsigned long line = report_.requests;
    {
      const Stopwatch watch(&report_.writeSeconds);
      map_.Write(request, line);
    }
    ++report_.writes;
    report_.bytesWritten += LengthOf(request);
    if (options_.check) {
      models_[request.unit].Write(request.start, request.end, line);
    }
  }

  void Read(const TraceRequest& request) {
    pieces_.clear();
    try {
      const Stopwatch watch(&report_.readSeconds);
      map_.Read(request, &pieces_);
    } catch (const ForeignExtent& foreign) {
      report_.difference = Differing(trace_.Position(), request.unit, foreign);
      return;
    }
    ++report_.reads;
    report_.bytesRead += LengthOf(request);
    for (const Piece& piece : pieces_) {
      report_.bytesFound += static_cast<std::uint64_t>(piece.end - piece.start);
    }
    if (options_.check) {
      Compare(trace_.Position(), request.unit, pieces_,
              models_[request.unit].Read(request.start, request.end));
    }
  }

  void SumUp() {
    const std::string where = options_.path + ": final state";
    FinalState state;
    for (const unsigned long unit : map_.Units()) {
      std::vector<Piece> pieces;
      try {
        pieces = map_.ReadAll(unit);
      } catch (const ForeignExtent& foreign) {
        report_.difference = Differing(where, unit, foreign);
        return;
      }
      if (options_.check && !Compare(where, unit, pieces, models_[unit].Read(0, LONG_MAX))) {
        return;
      }
      for (const Piece& piece : pieces) {
        state.Add(unit, piece);
      }
      ++report_.units;
    }
    state.Finish();
    report_.runs = state.runs();
    report_.bytesMapped = state.bytes();
    report_.digest = state.digest();
    report_.tables = map_.Measure();
  }

  /// True if both are the same; else the difference is noted.
  bool Compare(const std::string& where, unsigned long unit, const std::vector<Piece>& found,
               const std::vector<Piece>& expected) {
    const auto difference = FirstDifference(found, expected);
    if (difference.has_value()) {
      report_.difference = ReplayDifference{where, unit, difference->offset, difference->found,
                                            difference->expected};
    }
    return !difference.has_value();
  }

  static ReplayDifference Differing(const std::string& where, unsigned long unit,
                                    const ForeignExtent& foreign) {
    return {where, unit, foreign.offset, foreign.what(), "data of the trace"};
  }

  const ReplayOptions& options_;
  const ReplayProgress& progress_;
  ReplayReport report_;
  TraceReader trace_;
  std::optional<WorkDir> directory_;  // of persistent tables; made while map_ is
  MapUnderReplay map_;
  std::unordered_map<unsigned long, IntervalModel> models_;  // by unit; used by a check only
  std::vector<Piece> pieces_;                                // of one read; kept for its memory
};

}  // namespace

ReplayReport Replay(const ReplayOptions& options, const ReplayProgress& progress) {
  return Replayer(options, progress).Run();
}

}  // namespace zefs::refhost
