#include "tests/system/power_cut/model_disk.h"

#include <algorithm>
#include <fcntl.h>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>

#include "tests/support/file_bytes.h"

namespace zefs::test {

namespace fs = boost::filesystem;

namespace {

bool Coin(std::mt19937_64* random) {
  return ((*random)() & 1U) != 0;
}

std::size_t Below(std::size_t bound, std::mt19937_64* random) {
  return std::uniform_int_distribution<std::size_t>(0, bound - 1)(*random);
}

void Overwrite(const char* from, std::size_t size, std::uint64_t offset, std::string* bytes) {
  if (bytes->size() < offset + size) {
    bytes->resize(offset + size, '\0');
  }
  std::copy_n(from, size, bytes->begin() + static_cast<std::ptrdiff_t>(offset));
}

}  // namespace

DiskImage ImageOf(const fs::path& directory) {
  DiskImage image;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    const std::string path = entry.path().string().substr(directory.string().size() + 1);
    if (fs::is_directory(entry.status())) {
      image[path] = std::nullopt;
    } else {
      image[path] = BytesOf(entry.path());
    }
  }
  return image;
}

void WriteImage(const DiskImage& image, const fs::path& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    fs::remove_all(entry.path());
  }
  for (const auto& [path, bytes] : image) {  // a directory comes before what is in it
    if (bytes) {
      WriteBytes(directory / path, *bytes);
    } else {
      fs::create_directory(directory / path);
    }
  }
}

ModelDisk::ModelDisk(const DiskImage& image, Names names) : names_(names) {
  NewNode(true);
  for (const auto& [path, bytes] : image) {
    const Node node = NewNode(!bytes.has_value());
    files_[node].lasting = bytes.value_or("");
    now_[EntryOf(path)] = node;
  }
  lasting_ = now_;
}

ModelDisk::Node ModelDisk::NewNode(bool isDirectory) {
  files_.push_back({isDirectory, "", {}});
  return files_.size() - 1;
}

ModelDisk::Entry ModelDisk::EntryOf(const std::string& path) const {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return {0, path};
  }
  const Node parent = Find(path.substr(0, slash));
  if (parent == kNone) {
    throw std::runtime_error("no directory for " + path);
  }
  return {parent, path.substr(slash + 1)};
}

ModelDisk::Node ModelDisk::Find(const std::string& path) const {
  if (path.empty()) {
    return 0;
  }
  const auto at = now_.find(EntryOf(path));
  return at == now_.end() ? kNone : at->second;
}

void ModelDisk::Make(const NameChange& change, Entries* entries) {
  for (const auto& [entry, node] : change) {
    if (node == kNone) {
      entries->erase(entry);
    } else {
      (*entries)[entry] = node;
    }
  }
}

void ModelDisk::Rename(const NameChange& change) {
  Make(change, &now_);
  changes_.push_back(change);
}

void ModelDisk::SyncNames(Node node) {
  const auto names = [&](const NameChange& change, bool files) {
    return std::any_of(change.begin(), change.end(), [&](const auto& part) {
      return part.first.first == node || (files && part.second == node);
    });
  };
  if (names_ == Names::kInOrder) {
    const auto last = std::find_if(changes_.rbegin(), changes_.rend(),
                                   [&](const NameChange& c) { return names(c, true); });
    for (auto at = changes_.begin(); at != last.base(); ++at) {
      Make(*at, &lasting_);
    }
    changes_.erase(changes_.begin(), last.base());
    return;
  }
  const auto kept = std::stable_partition(changes_.begin(), changes_.end(),
                                          [&](const NameChange& c) { return names(c, false); });
  for (auto at = changes_.begin(); at != kept; ++at) {
    Make(*at, &lasting_);
  }
  changes_.erase(changes_.begin(), kept);
}

void ModelDisk::Apply(const Change& change, std::string* bytes) {
  if (change.truncates) {
    bytes->resize(change.offset, '\0');
  } else {
    Overwrite(change.bytes.data(), change.bytes.size(), change.offset, bytes);
  }
}

void ModelDisk::Apply(const DiskEvent& event) {
  const auto open = [&]() -> Node {
    const auto at = descriptors_.find(event.fd);
    if (at == descriptors_.end()) {
      throw std::runtime_error("a call on a descriptor that is not open");
    }
    return at->second;
  };
  const auto there = [&](const std::string& path) {
    const Node node = Find(path);
    if (node == kNone) {
      throw std::runtime_error("a call on " + path + ", which is not there");
    }
    return node;
  };
  switch (event.kind) {
    case DiskEvent::kMark:
      return;
    case DiskEvent::kOpen: {
      Node node = Find(event.path);
      if (node == kNone) {
        node = NewNode(false);
        Rename({{EntryOf(event.path), node}});
      }
      if ((event.flags & O_TRUNC) != 0) {
        files_[node].changes.push_back({true, 0, "", false});
      }
      descriptors_[event.fd] = node;
      return;
    }
    case DiskEvent::kClose:
      descriptors_.erase(event.fd);
      return;
    case DiskEvent::kWrite:
      written_ = open();
      files_[written_].changes.push_back({false, event.offset, event.bytes, false});
      return;
    case DiskEvent::kSyncWrite:
      files_[open()].changes.back().lasts = true;
      return;
    case DiskEvent::kTruncate:
      files_[event.fd == -1 ? there(event.path) : open()].changes.push_back(
          {true, event.offset, "", false});
      return;
    case DiskEvent::kSync: {
      File& file = files_[open()];
      for (const Change& change : file.changes) {
        Apply(change, &file.lasting);
      }
      file.changes.clear();
      SyncNames(open());
      return;
    }
    case DiskEvent::kRename:
      Rename({{EntryOf(event.path), kNone}, {EntryOf(event.bytes), there(event.path)}});
      return;
    case DiskEvent::kUnlink:
    case DiskEvent::kRmdir:
      there(event.path);
      Rename({{EntryOf(event.path), kNone}});
      return;
    case DiskEvent::kMkdir:
      Rename({{EntryOf(event.path), NewNode(true)}});
      return;
  }
}

ModelDisk::Entries ModelDisk::NamesLeft(Left left, std::mt19937_64* random) const {
  Entries entries = lasting_;
  if (left == Left::kNothing) {
    return entries;
  }
  const bool byChance = left == Left::kByChance;
  const std::size_t prefix =
      byChance && names_ == Names::kInOrder ? Below(changes_.size() + 1, random) : changes_.size();
  for (std::size_t i = 0; i < prefix; ++i) {
    if (!byChance || names_ == Names::kInOrder || Coin(random)) {
      Make(changes_[i], &entries);
    }
  }
  return entries;
}

std::string ModelDisk::BytesLeft(const File& file, Left left, std::mt19937_64* random) {
  std::string bytes = file.lasting;
  std::vector<std::size_t> sizes = {bytes.size()};
  std::size_t smallest = 0;  // what lasts has its size
  for (const Change& change : file.changes) {
    std::size_t size = sizes.back();
    if (change.truncates) {
      size = change.offset;
    } else {
      size = std::max(size, change.offset + change.bytes.size());
      smallest = change.lasts ? std::max(smallest, change.offset + change.bytes.size()) : smallest;
    }
    sizes.push_back(size);
    enum { kLost, kKept, kTorn } fate = kLost;
    if (change.lasts || left == Left::kAll) {
      fate = kKept;
    } else if (left == Left::kNamesAndTornBytes) {
      fate = kTorn;
    } else if (left == Left::kByChance) {
      fate = std::array{kLost, kKept, kTorn}[Below(3, random)];
    }
    if (fate == kKept) {
      Apply(change, &bytes);
    } else if (fate == kTorn && !change.truncates) {
      const std::uint64_t end = change.offset + change.bytes.size();
      for (std::uint64_t at = change.offset; at < end;) {
        const std::uint64_t next = std::min<std::uint64_t>(end, (at / kSector + 1) * kSector);
        if (Coin(random)) {
          Overwrite(change.bytes.data() + (at - change.offset), next - at, at, &bytes);
        }
        at = next;
      }
    }
  }
  std::size_t size = sizes.back();
  if (left == Left::kNothing) {
    size = sizes.front();
  } else if (left == Left::kByChance) {
    size = sizes[Below(sizes.size(), random)];
  }
  bytes.resize(std::max(size, smallest), '\0');
  return bytes;
}

DiskImage ModelDisk::Show(const Entries& entries, const std::vector<std::string>& bytes) const {
  DiskImage image;
  // Directories first, so that what is in one that is lost is lost with it.
  std::vector<std::pair<Node, std::string>> directories = {{0, ""}};
  for (std::size_t i = 0; i < directories.size(); ++i) {
    const auto [directory, prefix] = directories[i];
    for (auto at = entries.lower_bound({directory, ""});
         at != entries.end() && at->first.first == directory; ++at) {
      const std::string path = prefix + at->first.second;
      if (files_[at->second].isDirectory) {
        image[path] = std::nullopt;
        directories.emplace_back(at->second, path + '/');
      } else {
        image[path] = bytes[at->second];
      }
    }
  }
  return image;
}

DiskImage ModelDisk::AfterPowerCut(Left left, std::mt19937_64* random) const {
  const Entries entries = NamesLeft(left, random);
  std::vector<std::string> bytes;
  bytes.reserve(files_.size());
  for (const File& file : files_) {
    bytes.push_back(BytesLeft(file, left, random));
  }
  return Show(entries, bytes);
}

DiskImage ModelDisk::AfterPowerCut(int variant, std::mt19937_64* random) const {
  return AfterPowerCut(variant < kCorners ? static_cast<Left>(variant) : Left::kByChance, random);
}

DiskImage ModelDisk::Now() const {
  std::mt19937_64 unused;
  return AfterPowerCut(Left::kAll, &unused);
}

}  // namespace zefs::test
