#include "refhost/cli/file_commands.h"

#include <charconv>
#include <functional>
#include <iostream>
#include <memory>
#include <system_error>

#include <CLI/CLI.hpp>

namespace zefs::refhost {

namespace {

constexpr const char* kStatuses =
    "Exit status: 0 done, and on the disk; 1 something in the store is damaged; 2 the command "
    "cannot run.";

/// What a command on files is given.
struct Given {
  std::string store;
  std::string name;
  std::vector<std::string> names;
  std::string newName;
  std::int64_t size = 0;
  bool force = false;
  bool json = false;
};
using GivenPtr = std::shared_ptr<Given>;

/// What is wrong with a size in bytes; empty if nothing is.
std::string SizeTextProblem(const std::string& text) {
  std::int64_t size = 0;
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, size);
  return error == std::errc() && behind == end && size >= 0
             ? std::string()
             : "size " + text + " is not a number of bytes from 0 to 9223372036854775807";
}

CLI::App* AddCommand(CLI::App& app, const char* name, const char* what, int* exitStatus,
                     const GivenPtr& given, const std::function<int(const Given&)>& run) {
  CLI::App* const command = app.add_subcommand(name, std::string(what) + "\n" + kStatuses);
  command->add_option("STORE", given->store, "Directory of the store")->required();
  command->add_flag("--json", given->json, "Print the result as JSON");
  command->callback([given, run, exitStatus] { *exitStatus = run(*given); });
  return command;
}

void AddName(CLI::App* command, std::string* name) {
  command->add_option("NAME", *name, "Name of the file, as ls tells it")->required();
}

void AddTruncate(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command = AddCommand(
      app, "truncate", "Cut a file of a store to SIZE bytes, or make it longer by zeros.",
      exitStatus, given, [](const Given& asked) {
        return TruncateAndReport(asked.store, asked.name, asked.size, asked.json, std::cout,
                                 std::cerr);
      });
  AddName(command, &given->name);
  command->add_option("SIZE", given->size, "Bytes; 16K and 1M are taken too")
      ->required()
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Validator(SizeTextProblem, ""));
}

void AddRemove(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command = AddCommand(
      app, "rm",
      "Remove files from a store, all at once, or none if one is not there. Their data "
      "stays in the containers.",
      exitStatus, given, [](const Given& asked) {
        return RemoveAndReport(asked.store, asked.names, asked.json, std::cout, std::cerr);
      });
  constexpr int kAnyNumber = CLI::detail::expected_max_vector_size;
  command->add_option("NAME", given->names, "Names of the files, as ls tells them")
      ->required()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->expected(kAnyNumber, kAnyNumber)
      ->allow_extra_args(false);
}

void AddMove(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command =
      AddCommand(app, "mv",
                 "Give a file of a store another name, which is not in use yet. It is there under "
                 "one of the two, whole,\nwhatever happens meanwhile.",
                 exitStatus, given, [](const Given& asked) {
                   return MoveAndReport(asked.store, asked.name, asked.newName, asked.force,
                                        asked.json, std::cout, std::cerr);
                 });
  AddName(command, &given->name);
  command->add_option("NEWNAME", given->newName, "Its new name")->required();
  command->add_flag("--force", given->force, "Replace a file that has the new name");
}

void AddSnapshot(CLI::App& app, int* exitStatus) {
  const auto given = std::make_shared<Given>();
  CLI::App* const command =
      AddCommand(app, "snapshot",
                 "Make a second file of one as it is now, over the same data. Later changes of "
                 "either do not show in the other.",
                 exitStatus, given, [](const Given& asked) {
                   return SnapshotAndReport(asked.store, asked.name, asked.newName, asked.json,
                                            std::cout, std::cerr);
                 });
  AddName(command, &given->name);
  command->add_option("SNAPNAME", given->newName, "Name of the second file, not in use yet")
      ->required();
}

}  // namespace

void AddFileCommands(CLI::App& app, int* exitStatus) {
  AddTruncate(app, exitStatus);
  AddRemove(app, exitStatus);
  AddMove(app, exitStatus);
  AddSnapshot(app, exitStatus);
}

}  // namespace zefs::refhost
