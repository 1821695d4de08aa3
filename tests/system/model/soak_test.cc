#include "tests/system/model/soak.h"

#include <csignal>
#include <sstream>
#include <unistd.h>

#include <gmock/gmock.h>

#include "tests/support/in_memory.h"
#include "tests/system/model/faulty_tables.h"

namespace zefs::test {
namespace {

using testing::HasSubstr;
using testing::Not;

SoakOptions Few() {
  SoakOptions options;
  options.seed = 5;
  options.programs = 3;
  options.jobs = 2;
  options.length = 60;
  options.tries = 100;
  return options;
}

TEST(SoakTest, ProgramsWithoutADifferenceEndWithTheFigures) {
  std::ostringstream out;
  EXPECT_TRUE(Soak(Few(), Genuine(), false, &out));
  EXPECT_THAT(out.str(), HasSubstr("figure 3 programs on two tables and one model\n"));
  EXPECT_THAT(out.str(), HasSubstr("figure 180 operations on two tables and one model\n"));
  EXPECT_THAT(out.str(), HasSubstr("figure 0 differences between tables and model\n"));
}

TEST(SoakTest, ADifferenceEndsTheRunWithTheSeedAndAShortProgram) {
  SoakOptions options = Few();
  options.jobs = 1;  // what another process writes into this stream stays there
  std::ostringstream out;
  testing::internal::CaptureStdout();
  EXPECT_FALSE(Soak(options, WithFaultyStored<StoredThatWritesShort>(), false, &std::cout));
  const std::string told = testing::internal::GetCapturedStdout();
  EXPECT_THAT(told, HasSubstr("DIFFERENCE in the program of seed 5: operation "));
  EXPECT_THAT(told, HasSubstr("\n  0. "));
  EXPECT_THAT(told, Not(HasSubstr("\n  3. ")));
  EXPECT_THAT(told, HasSubstr("again: zefs-soak --seed 5 --programs 1 --length 60\n"));
  EXPECT_THAT(told, HasSubstr("figure 1 differences between tables and model\n"));
}

TEST(SoakTest, TheTimeEndsTheRun) {
  SoakOptions options = Few();
  options.programs = 0;
  options.minutes = 1e-6;
  std::ostringstream out;
  EXPECT_TRUE(Soak(options, Genuine(), false, &out));
}

TEST(SoakTest, AnInterruptOfItsProcessAloneEndsTheRunWithTheFigures) {
  SoakOptions options = Few();
  options.programs = 0;
  options.minutes = 600;
  TableMakers makers = Genuine();
  // Sent from the first life on, when the run has surely begun.
  makers.memory = [self = ::getpid(), memory = makers.memory](DataCacheManagementInterface* cache) {
    ::kill(self, SIGINT);
    return memory(cache);
  };
  std::ostringstream out;
  EXPECT_TRUE(Soak(options, makers, false, &out));
  EXPECT_THAT(out.str(), HasSubstr("figure 0 differences between tables and model\n"));
}

TEST(SoakTest, ATerminalGetsOneLineThatIsRewritten) {
  std::ostringstream out;
  EXPECT_TRUE(Soak(Few(), Genuine(), true, &out));
  EXPECT_THAT(out.str(), HasSubstr("\r\x1b[K"));
  EXPECT_THAT(out.str(), HasSubstr(" operations, "));
}

}  // namespace
}  // namespace zefs::test
