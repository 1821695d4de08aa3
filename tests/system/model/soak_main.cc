#include <iostream>
#include <random>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "tests/support/in_memory.h"
#include "tests/system/model/soak.h"

// zefs-soak: random programs of operations on both kinds of table and on one model, until a
// difference, the time or Ctrl-C ends them.

int main(int argc, char** argv) {
  zefs::test::SoakOptions options;
  options.seed = std::random_device()();
  CLI::App app{"Drives both kinds of table and one model with random programs of operations."};
  app.add_option("--seed", options.seed, "of the first program; absent: any");
  auto* programs = app.add_option("--programs", options.programs, "how many");
  app.add_option("--minutes", options.minutes, "for how long, fractions too")->excludes(programs);
  app.add_option("--jobs", options.jobs, "processes at once")->check(CLI::Range(1, 1024));
  app.add_option("--length", options.length, "operations of a program")
      ->check(CLI::Range(1, 1000000));
  CLI11_PARSE(app, argc, argv);
  if (options.programs == 0 && options.minutes <= 0) {
    std::cerr << "zefs-soak: --programs or --minutes says how long\n";
    return 2;
  }
  return zefs::test::Soak(options, zefs::test::Genuine(), ::isatty(STDOUT_FILENO) == 1, &std::cout)
             ? 0
             : 1;
}
