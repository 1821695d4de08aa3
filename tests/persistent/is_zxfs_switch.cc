#include "tests/persistent/is_zxfs_switch.h"

#include <utility>

namespace {

struct Switch {
  bool answer = false;
  std::vector<std::string> paths;
};

Switch& TheSwitch() {
  static Switch only;
  return only;
}

}  // namespace

/// The linker sends the calls of the host's function here.
bool SwitchedIsZxfs(const std::string& path) asm(
    "__wrap__Z6IsZxfsRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");

bool SwitchedIsZxfs(const std::string& path) {
  TheSwitch().paths.push_back(path);
  return TheSwitch().answer;
}

namespace zefs::test {

void AnswerIsZxfs(bool answer) {
  TheSwitch().answer = answer;
}

std::vector<std::string> TakeIsZxfsPaths() {
  return std::exchange(TheSwitch().paths, {});
}

}  // namespace zefs::test
