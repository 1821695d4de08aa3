#include <algorithm>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/printed.h"
#include "persistent/transaction.h"
#include "support/object_lock.h"
#include "table/fingerprint.h"

// File size, commit counter, object id and version of a table, stored beside its extents.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

using zefs::kLogFailure;
using zefs::kLogStep;
using zefs::kLogTrace;

constexpr std::uint64_t kLastUnsetDoidDcid = 64;  ///< a table's object id starts above this

/// "update do id" and its failures print the container under %ld.
long PrintedDcid(const ObjectID& id) {
  return static_cast<long>(id.dcid);
}

/// Puts the table's object id and commits, or throws.
void StoreObjectID(Transaction* transaction, const ObjectID& id) {
  int ret = transaction->Put(SPECIAL_KEY_DOID, SpecialValue::OfObjectID(id));
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to put do id fp %s, dcid %ld, ret:%d", TextOf(id.fp).data(),
             PrintedDcid(id), ret);
    throw SysException(ret);
  }
  transaction->CloseCursor();
  ret = transaction->Commit();
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to submit txn to put do id, ret:%d", ret);
    throw SysException(ret);
  }
}

}  // namespace

// --- file size and version ---------------------------------------------------------------------

long CMappingLMDB::GetFileSize(LMDBContext* db) {
  const Transaction transaction(*db, Transaction::kReadOnly, path_);
  MDB_val value;
  const int ret = transaction.Get(SPECIAL_KEY_FILE_SIZE, &value);
  if (ret == MDB_NOTFOUND) {
    return 0;
  }
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to get file size, ret:%d", ret);
    throw SysException(ret);
  }
  const long size = SpecialValue(value).Number();
  ZEFS_LOG(kLogTrace, "Get file size %lld, db=%s", Printed(size), db->path.c_str());
  return size;
}

int CMappingLMDB::CheckAndLoadSpecialItems(LMDBContext* db, long size) {
  Transaction transaction(*db, Transaction::kWrite, path_);
  MDB_val value;
  int ret = transaction.Get(SPECIAL_KEY_FILE_SIZE, &value);
  if (ret == MDB_NOTFOUND) {
    fileSize_ = size;
    ZEFS_LOG(kLogTrace, "Not found file size, set to 0");
  } else if (ret == 0) {
    fileSize_ = std::max<std::int64_t>(SpecialValue(value).Number(), size);
    ZEFS_LOG(kLogTrace, "Get file size %lld", Printed(fileSize_));
  } else {
    ZEFS_LOG(kLogFailure, "Failed to get file size, ret:%d", ret);
    throw SysException(ret);
  }
  committedFileSize_ = fileSize_;

  ret = transaction.Get(SPECIAL_KEY_LMDB_VERSION, &value);
  if (ret == 0) {
    extMapVersion_ = SpecialValue(value).Version();
    transaction.Abort();
    ZEFS_LOG(kLogTrace, "Get lmdb version: %i.%i", extMapVersion_.major, extMapVersion_.minor);
    return 0;
  }
  if (ret != MDB_NOTFOUND) {
    ZEFS_LOG(kLogFailure, "Failed to get lmdb version, ret:%d", ret);
    throw SysException(ret);
  }
  ZEFS_LOG(kLogTrace, "Not found lmdb version, set to default: 1.0");
  extMapVersion_ = kCurrentVersion;
  ret = transaction.Put(SPECIAL_KEY_LMDB_VERSION, SpecialValue::OfVersion(extMapVersion_));
  if (ret != 0) {
    transaction.Abort();
    ZEFS_LOG(kLogFailure, "Failed to update lmdb version %i.%i, ret:%d", extMapVersion_.major,
             extMapVersion_.minor, ret);
    return ret;
  }
  transaction.CloseCursor();
  return transaction.Commit();
}

int CMappingLMDB::setFileSize(long size) {
  // A merge's switch would otherwise close the databases under the transactions below.
  const SharedLock lock(tableLock_);
  ForgetDOIDUnlocked();
  if (size <= StoredSize()) {
    ZEFS_LOG(kLogTrace, "CMappingLMDB::setFileSize(), fileSize=%lld not updated to %lld",
             Printed(CachedSize()), Printed(size));
    return 0;
  }
  ZEFS_LOG(kLogTrace, "CMappingLMDB::setFileSize(), fileSize=%lld", Printed(size));
  Transaction transaction(fullDb_, Transaction::kWrite, path_);
  int ret = transaction.Put(SPECIAL_KEY_FILE_SIZE, SpecialValue::OfNumber(size));
  if (ret != 0) {
    transaction.Abort();
    ZEFS_LOG(kLogFailure, "Failed to update file size %lld, ret:%d", Printed(CachedSize()), ret);
    return ret;
  }
  ret = transaction.CommitLogged();
  if (ret != 0) {
    return ret;
  }
  SetSizes(size);
  return 0;
}

int CMappingLMDB::setExtMapVersion(ExtMapVersion version) {
  const SharedLock lock(tableLock_);  // as in setFileSize
  Transaction transaction(fullDb_, Transaction::kWrite, path_);
  int ret = transaction.Put(SPECIAL_KEY_LMDB_VERSION, SpecialValue::OfVersion(version));
  if (ret != 0) {
    transaction.Abort();
    ZEFS_LOG(kLogFailure, "Failed to update lmdb version %i.%i, ret:%d", version.major,
             version.minor, ret);
    return ret;
  }
  transaction.CloseCursor();
  ret = transaction.CommitLogged();
  if (ret != 0) {
    return ret;
  }
  SetVersion(version);
  ZEFS_LOG(kLogTrace, "Set lmdb version: %i.%i", version.major, version.minor);
  return 0;
}

// --- commit counter ----------------------------------------------------------------------------

long CMappingLMDB::GetCommitCounter(LMDBContext* db) {
  Transaction transaction(*db, Transaction::kWrite, path_);
  MDB_val value;
  int ret = transaction.Get(SPECIAL_KEY_COMMIT_COUNTER, &value);
  if (ret == 0) {
    const long counter = SpecialValue(value).Number();
    ZEFS_LOG(kLogTrace, "Get table commit counter %lld, db=%s", Printed(counter), db->path.c_str());
    return counter;
  }
  if (ret != MDB_NOTFOUND) {
    return 0;  // the counter only spaces merges out: a table opens without it
  }
  constexpr long kStart = 0;
  ret = transaction.Put(SPECIAL_KEY_COMMIT_COUNTER, SpecialValue::OfNumber(kStart));
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to update table commit counter %lld, ret:%d", Printed(kStart),
             ret);
    throw SysException(ret);
  }
  transaction.CloseCursor();
  ret = transaction.Commit();
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to submit txn to update table commit counter, ret:%d", ret);
    throw SysException(ret);
  }
  ZEFS_LOG(kLogTrace, "update table commit counter %lld, ret:%d", Printed(kStart), ret);
  return kStart;
}

// --- object id of the table --------------------------------------------------------------------

ObjectID CMappingLMDB::OwnId() const {
  const ObjectLock lock(&doid_);
  return doid_;
}

void CMappingLMDB::SetOwnId(const ObjectID& id) {
  const ObjectLock lock(&doid_);
  doid_.dcid = id.dcid;
  doid_.fp = id.fp;
}

void CMappingLMDB::MakeEmptyDOID(ObjectID* id) {
  id->dcid = 0;
  CRFPStringToDigest_r(CRFPEmptyFP(kCrfpDigestKind), kCrfpDigestKind, id->fp.data());
}

int CMappingLMDB::GetDOIDUnlocked(LMDBContext* db, ObjectID* out) {
  Transaction transaction(*db, Transaction::kWrite, path_);
  ObjectID doid;
  MakeEmptyDOID(&doid);
  MDB_val value;
  const int ret = transaction.Get(SPECIAL_KEY_DOID, &value);
  if (ret == 0) {
    SpecialValue(value).GetObjectID(&doid);
    ZEFS_LOG(kLogTrace, "Get do fp %s, dcid %ld, db=%s", TextOf(doid.fp).data(), PrintedDcid(doid),
             db->path.c_str());
  } else if (ret == MDB_NOTFOUND) {
    StoreObjectID(&transaction, doid);
    out->dcid = doid.dcid;
    out->fp = doid.fp;
    return 0;
  }
  transaction.Abort();
  // Through the printable form, so that what is kept is what the host's functions can express.
  const FingerprintText text = TextOf(doid.fp);
  out->dcid = doid.dcid;
  CRFPStringToDigest_r(text.data(), kCrfpDigestKind, out->fp.data());
  ZEFS_LOG(kLogTrace, "%s, dcid:%lld, fp:%s", "GetDOIDUnlocked", static_cast<long long>(doid.dcid),
           text.data());
  return 0;
}

int CMappingLMDB::SetDOIDUnlocked(LMDBContext* db, ObjectID* id) {
  Transaction transaction(*db, Transaction::kWrite, path_);
  StoreObjectID(&transaction, *id);
  ZEFS_LOG(kLogTrace, "update do id fp %s, dcid %ld, ret:%d", TextOf(id->fp).data(),
           PrintedDcid(*id), 0);
  return 0;
}

int CMappingLMDB::SetDOID(ObjectID* oid) {
  const SharedLock lock(tableLock_);
  ObjectID doid = *oid;
  if (CRFPIsEmptyDigest(oid->fp.data(), kCrfpDigestKind) == 1 || oid->dcid <= kLastUnsetDoidDcid) {
    MakeEmptyDOID(&doid);
  }
  SetOwnId(doid);
  SetDOIDUnlocked(&smallDb_, &doid);
  return 0;
}

int CMappingLMDB::GetDOID(ObjectID* oid) {
  const SharedLock lock(tableLock_);
  const ObjectID doid = OwnId();
  if (doid.dcid <= kLastUnsetDoidDcid) {
    return -1;
  }
  oid->dcid = doid.dcid;
  oid->fp = doid.fp;
  ZEFS_LOG(kLogTrace, "%s, dcid:%lld, fp:%s", "GetDOID", static_cast<long long>(oid->dcid),
           TextOf(oid->fp).data());
  return 0;
}

bool CMappingLMDB::NoteFirstChange() {
  if (dataChanged_) {
    return false;
  }
  dataChanged_ = true;
  ObjectID none;
  MakeEmptyDOID(&none);
  SetOwnId(none);
  return true;
}

int CMappingLMDB::ResetDOID(bool persist) {
  if (NoteFirstChange() && persist) {
    const SharedLock lock(tableLock_);  // as in setFileSize
    StoreOwnId();
  }
  return 0;
}

void CMappingLMDB::ForgetDOIDUnlocked() {
  if (NoteFirstChange()) {
    StoreOwnId();
  }
}

void CMappingLMDB::StoreOwnId() {
  ObjectID doid = OwnId();
  SetDOIDUnlocked(&smallDb_, &doid);
}

bool CMappingLMDB::IsDataChanged() {
  const ObjectID doid = OwnId();
  ZEFS_LOG(kLogStep, "%s, fp:%s, dcid:%ld", "IsDataChanged", TextOf(doid.fp).data(),
           PrintedDcid(doid));
  if (CRFPIsEmptyDigest(doid.fp.data(), kCrfpDigestKind) == 1 && doid.dcid == 0) {
    return true;
  }
  return dataChanged_;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
