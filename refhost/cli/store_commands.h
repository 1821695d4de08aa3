#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "refhost/cli/common_options.h"
#include "refhost/durable/store_directory.h"
#include "refhost/prefetch/read_ahead.h"

namespace CLI {
class App;
}

namespace zefs::refhost {

/// Adds the commands on a store that lasts: put, get, ls, stat and verify. When `app` is parsed
/// with one, it runs, and its exit status is put into `*exitStatus`, which outlives `app`.
void AddStoreCommands(CLI::App& app, int* exitStatus);

struct PutOptions {
  std::string store;
  std::vector<std::string> paths;
  WantedFormat format;
  TableOptions tables;
};

// The commands. Results go to `out`, in words or as JSON; whatever is wrong goes to `err`, one line
// each. They return the exit status.

int PutAndReport(const PutOptions& options, bool json, std::ostream& out, std::ostream& err);
int GetAndReport(const std::string& store, const std::string& name, const std::string& destination,
                 bool json, std::ostream& out, std::ostream& err,
                 const ReadAheadOptions& readAhead = {});
int ListAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err);
int StatAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err);
int VerifyAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err,
                    const ReadAheadOptions& readAhead = {});

}  // namespace zefs::refhost
