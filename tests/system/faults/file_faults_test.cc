// Every operation of the persistent table with each of its system calls failing.

#include "tests/system/faults/sweep.h"

namespace zefs::test {
namespace {

using FileFaultsTest = FaultSweep;

TEST_F(FileFaultsTest, OfLife) {
  Sweep(Group::kLife, Domain::kFile);
}
TEST_F(FileFaultsTest, OfReads) {
  Sweep(Group::kReads, Domain::kFile);
}
TEST_F(FileFaultsTest, OfTheCache) {
  Sweep(Group::kCache, Domain::kFile);
}
TEST_F(FileFaultsTest, OfFlushes) {
  Sweep(Group::kFlush, Domain::kFile);
}
TEST_F(FileFaultsTest, OfMerges) {
  Sweep(Group::kMerge, Domain::kFile);
}
TEST_F(FileFaultsTest, OfWhatIsStored) {
  Sweep(Group::kStored, Domain::kFile);
}
TEST_F(FileFaultsTest, OfPlans) {
  Sweep(Group::kPlans, Domain::kFile);
}
TEST_F(FileFaultsTest, OfFiles) {
  Sweep(Group::kFiles, Domain::kFile);
}

TEST_F(FileFaultsTest, OfADirectoryThatHasGone) {
  SweepRemovedDirectories();
}

}  // namespace
}  // namespace zefs::test
