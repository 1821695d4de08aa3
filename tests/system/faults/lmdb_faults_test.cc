// Every operation of the persistent table with each of its LMDB calls failing.

#include "tests/system/faults/sweep.h"

namespace zefs::test {
namespace {

using LmdbFaultsTest = FaultSweep;

TEST_F(LmdbFaultsTest, OfLife) {
  Sweep(Group::kLife, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfReads) {
  Sweep(Group::kReads, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfTheCache) {
  Sweep(Group::kCache, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfFlushes) {
  Sweep(Group::kFlush, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfMerges) {
  Sweep(Group::kMerge, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfWhatIsStored) {
  Sweep(Group::kStored, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfPlans) {
  Sweep(Group::kPlans, Domain::kLmdb);
}
TEST_F(LmdbFaultsTest, OfFiles) {
  Sweep(Group::kFiles, Domain::kLmdb);
}

}  // namespace
}  // namespace zefs::test
