#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::test {

/// Tables of all volumes of the store.
inline std::size_t TablesOf(const refhost::StoreDirectory& directory) {
  namespace fs = boost::filesystem;
  std::size_t tables = 0;
  for (std::size_t volume = 0; volume < directory.volumes(); ++volume) {
    tables += static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory.tables(volume)), fs::directory_iterator()));
  }
  return tables;
}

/// A name, of those that begin with `stem`, whose table goes to the volume.
inline std::string NameOn(const refhost::StoreDirectory& directory, std::size_t volume,
                          const std::string& stem) {
  constexpr int kTries = 1000;
  for (int i = 0; i < kTries; ++i) {
    std::string name = stem + std::to_string(i);
    if (directory.VolumeFor(name) == volume) {
      return name;
    }
  }
  throw std::runtime_error("no name goes to the volume: is it full?");
}

}  // namespace zefs::test
