#include "fuzz/table_directory/symbols.h"

#include <cstring>
#include <elf.h>
#include <iterator>

#include "tests/support/file_bytes.h"

namespace zefs::fuzz {

namespace {

template <typename Record>
Record RecordAt(const std::string& bytes, std::size_t at) {
  Record record{};
  if (at <= bytes.size() && bytes.size() - at >= sizeof(record)) {
    std::memcpy(&record, bytes.data() + at, sizeof(record));
  }
  return record;
}

}  // namespace

Symbols::Symbols() {
  const std::string bytes = zefs::test::BytesOf("/proc/self/exe");
  const auto header = RecordAt<Elf64_Ehdr>(bytes, 0);
  const auto section = [&](std::size_t i) {
    return RecordAt<Elf64_Shdr>(bytes, header.e_shoff + i * sizeof(Elf64_Shdr));
  };
  for (std::size_t i = 0; i < header.e_shnum; ++i) {
    const Elf64_Shdr table = section(i);
    if (table.sh_type != SHT_SYMTAB) {
      continue;
    }
    const Elf64_Shdr names = section(table.sh_link);
    for (std::size_t at = 0; at + sizeof(Elf64_Sym) <= table.sh_size; at += sizeof(Elf64_Sym)) {
      const auto symbol = RecordAt<Elf64_Sym>(bytes, table.sh_offset + at);
      const std::size_t name = names.sh_offset + symbol.st_name;
      if (ELF64_ST_TYPE(symbol.st_info) == STT_FUNC && symbol.st_size != 0 && name < bytes.size()) {
        byBegin_[symbol.st_value] = {symbol.st_value + symbol.st_size, bytes.data() + name};
      }
    }
  }
}

std::string Symbols::NameOf(std::uint64_t offset) const {
  const auto behind = byBegin_.upper_bound(offset);
  if (behind == byBegin_.begin()) {
    return "";
  }
  const Function& function = std::prev(behind)->second;
  return offset < function.end ? function.name : "";
}

}  // namespace zefs::fuzz
