#include "fuzz/table_directory/tally.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include <boost/filesystem/operations.hpp>

#include "tests/support/file_bytes.h"

namespace zefs::fuzz {

namespace {

namespace fs = boost::filesystem;

/// The culprit, the signal and LMDB's function that was called, or else the innermost function, and
/// what LMDB itself says if it does.
std::string ClassOf(const Ending& ending) {
  std::istringstream words(ending.what);
  std::string culprit;
  std::string signal;
  std::string function;
  words >> culprit >> signal >> function;
  const auto isLmdb = [](const std::string& name) { return name.find("mdb_") < 2; };
  // Only the functions that LMDB exports have names, so the outermost is the one that counts.
  for (std::string outer; culprit == "lmdb" && words >> outer && isLmdb(outer);) {
    function = outer;
  }
  if (culprit == "lmdb") {
    function.resize(std::min(function.find('+'), function.size()));
  }
  std::string text = culprit + ' ' + signal + ' ' + function;
  const std::size_t assertion = ending.words.find("Assertion '");
  if (assertion != std::string::npos) {
    text +=
        " (" + ending.words.substr(assertion, ending.words.find('\n', assertion) - assertion) + ")";
  }
  return text;
}

void PrintCounts(const char* title, const std::map<std::string, std::uint64_t>& counts) {
  for (const auto& [name, count] : counts) {
    std::printf("%s: %llu %s\n", title, static_cast<unsigned long long>(count), name.c_str());
  }
}

}  // namespace

void Tally::CountLife(const Case& input, const Ending& ending) {
  ++lives_;
  if (ending.culprit == Culprit::kNone) {
    ++loads_[ending.what];
    return;
  }
  const std::string found = ClassOf(ending);
  ++crashes_[found];
  if (input.damages.size() == 1) {
    ++damages_[std::string(NameOf(input.damages.front().kind)) + " -> " + found];
  }
  if (crashes_[found] <= 2) {
    Keep(input, found);
  }
}

bool Tally::Keep(const Case& input, const std::string& label) {
  const char* const directory = std::getenv("ZEFS_FUZZ_KEEP");
  if (directory == nullptr) {
    return false;
  }
  std::string name = label.substr(0, 120);
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == '/' || c == ' ' || c == '\''; }, '_');
  fs::path path;
  for (int i = 0; path.empty() || fs::exists(path); ++i) {
    path = fs::path(directory) / (name + "." + std::to_string(i));
  }
  zefs::test::WriteBytes(path, WriteCase(input));
  return true;
}

void Tally::Print() const {
  std::printf("figure %llu lives of damaged table directories\n",
              static_cast<unsigned long long>(lives_));
  PrintCounts("load", loads_);
  PrintCounts("crash", crashes_);
  PrintCounts("one damage", damages_);
  std::fflush(stdout);
}

}  // namespace zefs::fuzz
