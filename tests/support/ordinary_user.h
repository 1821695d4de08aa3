#pragma once

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

#include <linux/capability.h>
#include <sys/syscall.h>

namespace zefs::test {

/// While it lives, this thread and those that it starts have the rights of an ordinary user, also
/// where the superuser runs the tests: what the modes of its own files forbid, they cannot do.
class AsOrdinaryUser {
 public:
  AsOrdinaryUser() {
    if (::syscall(SYS_capget, &head_, before_.data()) != 0) {
      throw std::runtime_error("cannot tell the rights of this thread");
    }
    Capabilities none = before_;
    for (__user_cap_data_struct& part : none) {
      part.effective = 0;
    }
    if (::syscall(SYS_capset, &head_, none.data()) != 0) {
      throw std::runtime_error("cannot give up the rights of the superuser");
    }
  }
  ~AsOrdinaryUser() {
    if (::syscall(SYS_capset, &head_, before_.data()) != 0) {
      std::abort();
    }
  }
  AsOrdinaryUser(const AsOrdinaryUser&) = delete;
  AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

 private:
  using Capabilities = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;
  __user_cap_header_struct head_{_LINUX_CAPABILITY_VERSION_3, 0};
  Capabilities before_{};
};

}  // namespace zefs::test
