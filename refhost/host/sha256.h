#pragma once

#include <cstddef>
#include <memory>

#include "host/fingerprint.h"

struct evp_md_ctx_st;

namespace zefs::refhost {

/// SHA-256 over data that arrives in pieces. Throws std::runtime_error if the cryptographic library
/// refuses, which takes a broken installation of it. Not synchronised.
class Sha256Hasher {
 public:
  Sha256Hasher();
  ~Sha256Hasher();
  Sha256Hasher(const Sha256Hasher&) = delete;
  Sha256Hasher& operator=(const Sha256Hasher&) = delete;

  /// Adds `size` bytes.
  void Update(const void* data, std::size_t size);

  /// The digest of all that was added. The hasher then starts afresh.
  crfp_digest_t Finish();

 private:
  struct FreeContext {
    void operator()(evp_md_ctx_st* context) const;
  };

  void Start();

  std::unique_ptr<evp_md_ctx_st, FreeContext> context_;
};

/// SHA-256 of the `size` bytes at `data`: the fingerprint of that piece of data. Thread-safe.
/// Throws as the hasher does.
crfp_digest_t Sha256(const void* data, std::size_t size);

}  // namespace zefs::refhost
