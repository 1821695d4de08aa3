#include "refhost/prefetch/container_cache.h"

#include <algorithm>
#include <cstring>

namespace zefs::refhost {

std::uint32_t ContainerCache::LengthOf(std::uint32_t number, std::int64_t end) {
  const std::int64_t begin = std::int64_t{number} * kBlockBytes;
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(end - begin, 0, kBlockBytes));
}

void ContainerCache::Begin(std::uint64_t dcid, const BlockNumbers& wanted, std::int64_t end,
                           BlockNumbers* begun) {
  const std::lock_guard<std::mutex> lock(mutex_);
  // Before anything is thrown out: what this plan goes on using is not.
  BlockNumbers missing;
  std::copy_if(wanted.begin(), wanted.end(), std::back_inserter(missing),
               [&](std::uint32_t number) {
                 const std::uint32_t length = LengthOf(number, end);
                 return length != 0 && !IsKept({dcid, number}, length);
               });
  begun->reserve(begun->size() + missing.size());
  for (const std::uint32_t number : missing) {
    const std::uint32_t length = LengthOf(number, end);
    if (!MakeRoomFor(length)) {
      break;
    }
    blocks_[{dcid, number}].length = length;
    bytes_ += length;
    begun->push_back(number);
  }
}

/// Whether the block is there or begun; one that is there and has grown since is thrown out.
bool ContainerCache::IsKept(const Key& key, std::uint32_t length) {
  const auto known = blocks_.find(key);
  if (known == blocks_.end()) {
    return false;
  }
  Block& block = known->second;
  if (block.bytes == nullptr) {
    return true;
  }
  if (block.length < length) {
    Remove(known);
    return false;
  }
  recent_.splice(recent_.begin(), recent_, block.recent);
  return true;
}

bool ContainerCache::MakeRoomFor(std::uint32_t length) {
  while (bytes_ + length > mostBytes_ && !recent_.empty()) {
    Remove(blocks_.find(recent_.back()));
  }
  return bytes_ + length <= mostBytes_;
}

void ContainerCache::Remove(Blocks::iterator block) {
  if (block->second.bytes != nullptr) {
    recent_.erase(block->second.recent);
  }
  bytes_ -= block->second.length;
  blocks_.erase(block);
}

void ContainerCache::Put(std::uint64_t dcid, std::uint32_t number, Bytes bytes) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const Key key{dcid, number};
    Block& block = blocks_.at(key);
    recent_.push_front(key);
    block.recent = recent_.begin();
    block.bytes = std::move(bytes);
  }
  ended_.notify_all();
}

void ContainerCache::GiveUp(std::uint64_t dcid, std::uint32_t number) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    Remove(blocks_.find({dcid, number}));
  }
  ended_.notify_all();
}

bool ContainerCache::Read(std::uint64_t dcid, std::int64_t offset, std::uint32_t size, char* out) {
  struct Part {
    Bytes bytes;
    std::uint32_t from;
    std::uint32_t size;
  };
  std::vector<Part> parts;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    for (std::int64_t at = offset; at < offset + size;) {
      const Key key{dcid, static_cast<std::uint32_t>(at / kBlockBytes)};
      auto known = blocks_.find(key);
      while (known != blocks_.end() && known->second.bytes == nullptr) {
        ended_.wait(lock);
        known = blocks_.find(key);
      }
      const auto from = static_cast<std::uint32_t>(at % kBlockBytes);
      const auto wanted = static_cast<std::uint32_t>(
          std::min<std::int64_t>(kBlockBytes - from, offset + size - at));
      if (known == blocks_.end() || from + wanted > known->second.length) {
        return false;
      }
      recent_.splice(recent_.begin(), recent_, known->second.recent);
      parts.push_back({known->second.bytes, from, wanted});
      at += wanted;
    }
  }
  for (const Part& part : parts) {
    std::memcpy(out, part.bytes.get() + part.from, part.size);
    out += part.size;
  }
  return true;
}

std::size_t ContainerCache::bytes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return bytes_;
}

}  // namespace zefs::refhost
