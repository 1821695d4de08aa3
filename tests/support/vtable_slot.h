#pragma once

#include <cstddef>
#include <cstring>

namespace zefs::test {

/// Slot of a virtual operation in its class's vtable, from the pointer to the member: in the
/// Itanium C++ ABI, which 64-bit Linux uses, its first word is one more than the byte offset in the
/// vtable. A destructor takes two slots.
template <typename MemberPointer>
std::size_t SlotOf(MemberPointer member) {
  static_assert(sizeof(member) == 2 * sizeof(std::ptrdiff_t), "Itanium member pointer");
  std::ptrdiff_t words[2];
  std::memcpy(words, &member, sizeof(words));
  if (words[0] % 2 == 0) {
    return static_cast<std::size_t>(-1);  // not virtual
  }
  return static_cast<std::size_t>(words[0] - 1) / sizeof(void*);
}

}  // namespace zefs::test
