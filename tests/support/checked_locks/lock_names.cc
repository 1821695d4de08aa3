// Names the locks of the system for the checker, in every test program of a build that checks them.

#include <gtest/gtest.h>

#include "host/auto_log_cpu.h"
#include "host/config.h"
#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/support/checked_locks/lock_checker.h"
#include "tests/support/checked_locks/lock_ranks.h"

namespace zefs::test::locks {
namespace {

class LockNames final : public testing::Environment {
 public:
  void SetUp() override {
    using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
    using Aldenta::Qnd::Morene::Zefs::CMappingTable;
    CMappingLMDB table(nullptr, "PROVISION");
    Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer peer(table);
    NameKind(peer.rwLock().kind(), "rwLock_", kRankRwLock);
    NameKind(peer.tableLock().kind(), "tableLock_", kRankTableLock);
    NameKind(peer.prefetchLock().kind(), "prefetchLock_", kRankPrefetchLock);
    NameKind(FileSystemDaemonConfig::GetInstance().mutex.kind(), "mutex of the settings",
             kRankHost);
    NameKind(Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu::rwMutex_.kind(), "AutoLogCpu::rwMutex_",
             kRankHost);
  }
};

const testing::Environment* const names = testing::AddGlobalTestEnvironment(new LockNames);

}  // namespace
}  // namespace zefs::test::locks
