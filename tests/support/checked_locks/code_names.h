#pragma once

#include <cstddef>

namespace zefs::test::locks {

/// Writes the class of the member function of this program that the code at `pc` belongs to, or the
/// name of a function that is none, with its namespaces; the address, if that cannot be told. By
/// system calls alone and without memory of its own: a test program may have replaced what others
/// would use.
void NameCode(const void* pc, char* out, std::size_t size);

}  // namespace zefs::test::locks
