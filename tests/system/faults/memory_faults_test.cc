// Every operation of the persistent table with each of its allocations failing.

#include "tests/system/faults/sweep.h"

namespace zefs::test {
namespace {

using MemoryFaultsTest = FaultSweep;

TEST_F(MemoryFaultsTest, OfLife) {
  Sweep(Group::kLife, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfReads) {
  Sweep(Group::kReads, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfTheCache) {
  Sweep(Group::kCache, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfFlushes) {
  Sweep(Group::kFlush, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfMerges) {
  Sweep(Group::kMerge, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfWhatIsStored) {
  Sweep(Group::kStored, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfPlans) {
  Sweep(Group::kPlans, Domain::kMemory);
}
TEST_F(MemoryFaultsTest, OfFiles) {
  Sweep(Group::kFiles, Domain::kMemory);
}

}  // namespace
}  // namespace zefs::test
