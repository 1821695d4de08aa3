#pragma once

#include "table/sys_exception.h"

namespace zefs::test {

/// The code of the SysException that `call` throws; 0 if it throws none.
template <typename Call>
int CodeOf(Call call) {
  try {
    call();
  } catch (const Aldenta::Qnd::Morene::Zefs::SysException& e) {
    return e.code;
  }
  return 0;
}

}  // namespace zefs::test
