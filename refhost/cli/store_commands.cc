#include "refhost/cli/store_commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

namespace zefs::refhost {

namespace {

constexpr const char* kStatuses =
    "Exit status: 0 fine; 1 something in the store is damaged; 2 the command cannot run or was "
    "interrupted.";

std::string Describe(const char* what) {
  return std::string(what) + "\n" + kStatuses;
}

/// What a command on a store is given.
struct Given {
  PutOptions put;
  std::string store;
  std::string name;
  std::string destination;
  ReadAheadOptions readAhead;
  bool json = false;
};
using GivenPtr = std::shared_ptr<Given>;

CLI::App* AddCommand(CLI::App& app, const char* name, const char* what, const GivenPtr& given) {
  CLI::App* const command = app.add_subcommand(name, Describe(what));
  command->add_option("STORE", given->store, "Directory of the store")->required();
  command->add_flag("--json", given->json, "Print the result as JSON");
  return command;
}

void AddPut(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command =
      AddCommand(app, "put",
                 "Put files into a store, under their absolute paths.\n"
                 "Each takes the place of a file of that name; the store is made if it is missing. "
                 "What has been synced when\nthe command ends in whatever way stays, and no file "
                 "is ever half new.",
                 given);
  AddSourcePaths(command, &given->put.paths);
  AddSegmentSize(command, &given->put.format.segmentSize);
  AddTableType(command, &given->put.format.tableType);
  AddTableOptions(command, &given->put.tables);
  AddVolumes(command, &given->put.format.volumes);
  command->callback([given, exitStatus] {
    given->put.store = given->store;
    *exitStatus = PutAndReport(given->put, given->json, std::cout, std::cerr);
  });
}

void AddReadAhead(CLI::App* command, ReadAheadOptions* options) {
  command
      ->add_option(
          "--read-ahead", options->windowBytes,
          "Bytes fetched ahead of a reader of a file; 0: nothing, 8M and so on are taken too")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
  command
      ->add_option("--read-cache", options->cacheBytes,
                   "Most bytes that are kept in memory of what was fetched ahead")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
}

void AddGet(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command =
      AddCommand(app, "get", "Write a file of a store to DEST, where there is nothing yet.", given);
  command->add_option("NAME", given->name, "Name of the file, as ls tells it")->required();
  command->add_option("DEST", given->destination, "Where to write it")->required();
  AddReadAhead(command, &given->readAhead);
  command->callback([given, exitStatus] {
    *exitStatus = GetAndReport(given->store, given->name, given->destination, given->json,
                               std::cout, std::cerr, given->readAhead);
  });
}

using Report = int (*)(const std::string& store, bool json, std::ostream& out, std::ostream& err);

void AddLook(CLI::App& app, const char* name, const char* what, Report report, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  AddCommand(app, name, what, given)->callback([given, report, exitStatus] {
    *exitStatus = report(given->store, given->json, std::cout, std::cerr);
  });
}

void AddVerify(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command =
      AddCommand(app, "verify",
                 "Read every byte of every file again, and compare it with the fingerprints of its "
                 "extents and with the digest\nof the file.",
                 given);
  AddReadAhead(command, &given->readAhead);
  command->callback([given, exitStatus] {
    *exitStatus =
        VerifyAndReport(given->store, given->json, std::cout, std::cerr, given->readAhead);
  });
}

}  // namespace

void AddStoreCommands(CLI::App& app, int* exitStatus) {
  AddPut(app, exitStatus);
  AddGet(app, exitStatus);
  AddLook(app, "ls", "List the files of a store.", ListAndReport, exitStatus);
  AddLook(app, "stat", "Tell what a store holds.", StatAndReport, exitStatus);
  AddVerify(app, exitStatus);
}

}  // namespace zefs::refhost
