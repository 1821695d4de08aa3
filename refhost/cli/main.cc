#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "refhost/cli/check_command.h"
#include "refhost/cli/exit_status.h"
#include "refhost/cli/file_commands.h"
#include "refhost/cli/gc_commands.h"
#include "refhost/cli/printable.h"
#include "refhost/cli/replay_command.h"
#include "refhost/cli/store_commands.h"

// zefs-host: a host for the extent map, with commands that put it to work.

namespace {

/// What a wrong command line is answered with. Where something is missing and something else is
/// unknown, the latter is most likely the former, misspelt.
std::string UsageError(const CLI::App* app, const CLI::Error& error) {
  const std::vector<std::string> unknown = app->remaining(true);
  const bool misspelt = error.get_name() == "RequiredError" && !unknown.empty();
  const std::string problem =
      misspelt ? "unknown command or option: " + unknown.front() : error.what();
  return "zefs-host: " + zefs::refhost::Printable(problem) + " (see zefs-host --help)\n";
}

}  // namespace

int main(int argc, char** argv) {
  using zefs::refhost::kExitCannotRun;
  using zefs::refhost::kExitFine;
  int exitStatus = kExitFine;
  CLI::App app("Puts the extent map of a deduplicating file system to work.", "zefs-host");
  app.set_version_flag("--version", "zefs-host " ZEFS_VERSION);
  app.failure_message(UsageError);
  app.require_subcommand(1);
  zefs::refhost::AddStoreCommands(app, &exitStatus);
  zefs::refhost::AddFileCommands(app, &exitStatus);
  zefs::refhost::AddGcCommands(app, &exitStatus);
  zefs::refhost::AddCheckCommand(app, &exitStatus);
  zefs::refhost::AddReplayCommand(app, &exitStatus);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitStatus = app.exit(error) == 0 ? kExitFine : kExitCannotRun;
  }
  std::cout.flush();
  if (!std::cout) {
    std::cerr << "zefs-host: the result cannot be written to standard output\n";
    return kExitCannotRun;
  }
  return exitStatus;
}
