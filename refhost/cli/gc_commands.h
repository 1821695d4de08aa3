#pragma once

#include <iosfwd>
#include <string>

namespace CLI {
class App;
}

namespace zefs::refhost {

/// Adds the commands that win back room in a store: gc and compact. When `app` is parsed with one,
/// it runs, and its exit status is put into `*exitStatus`, which outlives `app`.
void AddGcCommands(CLI::App& app, int* exitStatus);

// The commands, as those of store_commands.h.

int GcAndReport(const std::string& store, bool json, std::ostream& out, std::ostream& err);
int CompactAndReport(const std::string& store, unsigned below, bool json, std::ostream& out,
                     std::ostream& err);

}  // namespace zefs::refhost
