#include "fuzz/table_directory/damage.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <boost/filesystem/operations.hpp>

namespace zefs::fuzz {

namespace {

namespace fs = boost::filesystem;

constexpr std::array<const char*, static_cast<std::size_t>(DamageKind::kCount)> kNames = {
    "meta: magic",
    "meta: version",
    "meta: address",
    "meta: map size",
    "meta: page size",
    "meta: flags of the free pages",
    "meta: depth of the free pages",
    "meta: entries of the free pages",
    "meta: root of the free pages",
    "meta: pad",
    "meta: flags",
    "meta: depth",
    "meta: number of leaf pages",
    "meta: entries",
    "meta: root",
    "meta: last page",
    "meta: transaction number",
    "meta: page flags",
    "page: number",
    "page: flags",
    "page: lower bound",
    "page: upper bound",
    "page: length of an overflow run",
    "node: offset",
    "node: size of the value",
    "node: flags",
    "node: size of the key",
    "node: child page",
    "node: bytes of the key",
    "node: bytes of the value",
    "database: any byte",
    "pages: two swapped",
    "pages: one over another",
    "pages: one of zeros",
    "pages: one of garbage",
    "file: cut",
    "file: cut at a page",
    "file: longer by zeros",
    "file: huge and sparse",
    "file: empty",
    "file: missing",
    "file: another one's content",
    "file: garbage",
    "file: a directory",
    "file: a dangling link",
    "file: a loop of links",
    "file: a link to another",
    "file: a FIFO",
    "file: not readable",
    "lock file: garbage",
    "lock file: a directory",
    "lock file: a FIFO",
    "record: one more",
    "record: one less",
    "record: odd value",
    "record: odd key",
    "record: reversed extent",
    "record: extent at the ends of the numbers",
    "side file: any bytes",
};

bool IsLock(const std::string& name) {
  return name.size() > 5 && name.compare(name.size() - 5, 5, "-lock") == 0;
}

bool IsDatabase(const std::string& name) {
  return !IsLock(name) && name.find("mdb") != std::string::npos;
}

std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

const char* NameOf(DamageKind kind) {
  return kind < DamageKind::kCount ? kNames.at(static_cast<std::size_t>(kind)) : "none";
}

bool IsOfRecords(DamageKind kind) {
  return kind >= DamageKind::kPutRecord && kind <= DamageKind::kExtremeExtent;
}

Damage ReadDamage(ByteReader* reader) {
  Damage damage;
  damage.kind = static_cast<DamageKind>(
      std::min<std::uint64_t>(reader->Number(1), static_cast<std::uint64_t>(DamageKind::kCount)));
  damage.file = static_cast<std::uint8_t>(reader->Number(1));
  damage.page = static_cast<std::uint16_t>(reader->Number(2));
  damage.node = static_cast<std::uint16_t>(reader->Number(2));
  damage.how = static_cast<std::uint8_t>(reader->Number(1));
  damage.unused = static_cast<std::uint8_t>(reader->Number(1));
  damage.value = reader->Number(8);
  return damage;
}

void AppendDamage(const Damage& damage, std::string* out) {
  AppendNumber(out, static_cast<std::uint64_t>(damage.kind), 1);
  AppendNumber(out, damage.file, 1);
  AppendNumber(out, damage.page, 2);
  AppendNumber(out, damage.node, 2);
  AppendNumber(out, damage.how, 1);
  AppendNumber(out, damage.unused, 1);
  AppendNumber(out, damage.value, 8);
}

std::vector<std::string> DatabasesIn(const std::string& directory) {
  std::vector<std::string> names = NamesIn(directory);
  names.erase(std::remove_if(names.begin(), names.end(),
                             [](const std::string& name) { return !IsDatabase(name); }),
              names.end());
  return names;
}

std::vector<std::string> SideFilesIn(const std::string& directory) {
  std::vector<std::string> names = NamesIn(directory);
  names.erase(
      std::remove_if(names.begin(), names.end(),
                     [](const std::string& name) { return IsDatabase(name) || IsLock(name); }),
      names.end());
  return names;
}

}  // namespace zefs::fuzz
