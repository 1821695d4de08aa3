#include "refhost/store/store_error.h"

#include <cstring>
#include <lmdb.h>

namespace zefs::refhost {

std::string ReasonOf(int errorCode) {
  if (errorCode >= MDB_KEYEXIST && errorCode <= MDB_LAST_ERRCODE) {
    return mdb_strerror(errorCode);
  }
  const char* const words = strerrordesc_np(errorCode);
  const char* const name = strerrorname_np(errorCode);
  if (words == nullptr || name == nullptr) {
    return "error " + std::to_string(errorCode);
  }
  return std::string(words) + " (" + name + ")";
}

StoreError SystemError(const std::string& action, const std::string& path, int errorCode) {
  return StoreError("cannot " + action + " " + path + ": " + ReasonOf(errorCode), errorCode);
}

}  // namespace zefs::refhost
