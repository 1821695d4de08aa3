#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>

#include "refhost/host/sha256.h"

namespace zefs::refhost {

/// The digest of a file that is written from its first byte to its last, made on the way. Any other
/// write and it gives up: the file has to be read then. Thread-safe.
class SequentialDigest {
 public:
  /// `fresh` says that the file is empty; of any other nothing is known.
  explicit SequentialDigest(bool fresh) : follows_(fresh) {}

  void Note(std::int64_t offset, std::string_view bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    follows_ = follows_ && offset == next_;
    if (follows_) {
      hasher_.Update(bytes.data(), bytes.size());
      next_ += static_cast<std::int64_t>(bytes.size());
    }
  }

  void GiveUp() {
    const std::lock_guard<std::mutex> lock(mutex_);
    follows_ = false;
  }

  /// The digest of a file of `size` bytes, if all of them came by in order. Gives up then.
  std::optional<crfp_digest_t> Take(std::int64_t size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const bool complete = follows_ && next_ == size;
    follows_ = false;
    return complete ? std::optional(hasher_.Finish()) : std::nullopt;
  }

 private:
  std::mutex mutex_;
  Sha256Hasher hasher_;
  std::int64_t next_ = 0;
  bool follows_;
};

}  // namespace zefs::refhost
