#pragma once

#include <cstdio>
#include <string>

namespace zefs::test {

/// Tells how much a test has done: "figure COUNT KIND" on a line of its own on standard output. The
/// figures of docs/reliability.md are the sums of these lines by kind. `kind` is words in the
/// plural, such as "crash points of a flush".
inline void TellFigure(const std::string& kind, long count) {
  std::printf("figure %ld %s\n", count, kind.c_str());
  std::fflush(stdout);
}

}  // namespace zefs::test
