#include "tests/system/model/minimise.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace zefs::test {

Program Minimised(Program program, const std::function<bool(const Program&)>& fails, int tries) {
  std::size_t chunk = std::max<std::size_t>(program.operations.size() / 2, 1);
  while (tries > 0) {
    bool shorter = false;
    for (std::size_t from = program.operations.size(); from > 0 && tries > 0;) {
      const std::size_t begin = from > chunk ? from - chunk : 0;
      Program rest = program;
      rest.operations.erase(rest.operations.begin() + static_cast<std::ptrdiff_t>(begin),
                            rest.operations.begin() + static_cast<std::ptrdiff_t>(from));
      --tries;
      if (fails(rest)) {
        program = std::move(rest);
        shorter = true;
      }
      from = begin;
    }
    if (chunk == 1 && !shorter) {
      break;
    }
    chunk = std::max<std::size_t>(chunk / 2, 1);
  }
  return program;
}

}  // namespace zefs::test
