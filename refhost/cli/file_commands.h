#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zefs::refhost {

/// Adds the commands on single files of a store: truncate, rm, mv and snapshot, as AddStoreCommands
/// does its own.
void AddFileCommands(CLI::App& app, int* exitStatus);

// The commands, as in store_commands.h. What they have done is on the disk when they return.

int TruncateAndReport(const std::string& store, const std::string& name, std::int64_t size,
                      bool json, std::ostream& out, std::ostream& err);

/// Removes all of the files, or none if one is not there.
int RemoveAndReport(const std::string& store, const std::vector<std::string>& names, bool json,
                    std::ostream& out, std::ostream& err);

/// With `force` a file `newName` is replaced.
int MoveAndReport(const std::string& store, const std::string& name, const std::string& newName,
                  bool force, bool json, std::ostream& out, std::ostream& err);

int SnapshotAndReport(const std::string& store, const std::string& name, const std::string& copy,
                      bool json, std::ostream& out, std::ostream& err);

}  // namespace zefs::refhost
