#pragma once

#include <functional>

#include "tests/system/model/operation.h"

namespace zefs::test {

/// A shorter program that fails as well: operations are taken out, many at once, then fewer, as
/// long as `fails` holds for what is left. At most `tries` programs are tried.
Program Minimised(Program program, const std::function<bool(const Program&)>& fails, int tries);

}  // namespace zefs::test
