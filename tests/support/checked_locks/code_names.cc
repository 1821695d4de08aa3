#include "tests/support/checked_locks/code_names.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>

extern "C" const char __executable_start;

namespace zefs::test::locks {

namespace {

struct Symbols {
  const Elf64_Sym* first = nullptr;
  const Elf64_Sym* end = nullptr;
  const char* names = nullptr;
  std::uint64_t base = 0;  // what an address of the program is above that of a symbol
};

/// The table of symbols of this program. It stays mapped.
Symbols Read() {
  Symbols symbols;
  const long fd = ::syscall(SYS_openat, AT_FDCWD, "/proc/self/exe", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return symbols;
  }
  const long size = ::syscall(SYS_lseek, fd, 0, SEEK_END);
  const long mapped = ::syscall(SYS_mmap, nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  ::syscall(SYS_close, fd);
  if (mapped == -1) {
    return symbols;
  }
  const char* const image = reinterpret_cast<const char*>(mapped);
  const auto* const header = reinterpret_cast<const Elf64_Ehdr*>(image);
  const auto* const sections = reinterpret_cast<const Elf64_Shdr*>(image + header->e_shoff);
  for (int i = 0; i < header->e_shnum; ++i) {
    if (sections[i].sh_type == SHT_SYMTAB) {
      symbols.first = reinterpret_cast<const Elf64_Sym*>(image + sections[i].sh_offset);
      symbols.end = symbols.first + sections[i].sh_size / sizeof(Elf64_Sym);
      symbols.names = image + sections[sections[i].sh_link].sh_offset;
    }
  }
  if (header->e_type == ET_DYN) {
    symbols.base = reinterpret_cast<std::uint64_t>(&__executable_start);
  }
  return symbols;
}

/// The name of a function, as the linker knows it, cut down to namespaces and class.
void CutToClass(const char* symbol, char* out, std::size_t size) {
  const char* at = std::strstr(symbol, "N");
  std::size_t used = 0;
  std::size_t last = 0;  // where the last name begins
  out[0] = '\0';
  if (symbol[0] == '_' && symbol[1] == 'Z' && at != nullptr && at - symbol <= 3) {
    ++at;
    while (*at == 'K' || *at == 'V' || *at == 'S' || *at == 't') {
      ++at;
    }
    while (*at >= '1' && *at <= '9') {
      std::size_t length = 0;
      for (; *at >= '0' && *at <= '9'; ++at) {
        length = 10 * length + static_cast<std::size_t>(*at - '0');
      }
      last = used;
      const int wrote = std::snprintf(out + used, size - used, "%s%.*s",
                                      used == 0 ? "" : "::", static_cast<int>(length), at);
      used = used + static_cast<std::size_t>(wrote) < size ? used + static_cast<std::size_t>(wrote)
                                                           : size - 1;
      at += length;
    }
  }
  if (used == 0) {
    std::snprintf(out, size, "%s", symbol);
  } else if (*at != 'C' && *at != 'D' && last != 0) {
    out[last] = '\0';  // neither constructor nor destructor, which have no name of their own
  }
}

}  // namespace

void NameCode(const void* pc, char* out, std::size_t size) {
  static bool read = false;
  static Symbols symbols;
  if (!read) {
    symbols = Read();
    read = true;
  }
  const std::uint64_t address = reinterpret_cast<std::uint64_t>(pc) - 1 - symbols.base;
  for (const Elf64_Sym* at = symbols.first; at != symbols.end; ++at) {
    if (ELF64_ST_TYPE(at->st_info) == STT_FUNC && at->st_value <= address &&
        address < at->st_value + at->st_size) {
      CutToClass(symbols.names + at->st_name, out, size);
      return;
    }
  }
  std::snprintf(out, size, "%p", pc);
}

}  // namespace zefs::test::locks
