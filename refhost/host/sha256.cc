#include "refhost/host/sha256.h"

#include <stdexcept>

#include <openssl/evp.h>

namespace zefs::refhost {

namespace {

struct FreeAlgorithm {
  void operator()(EVP_MD* algorithm) const { EVP_MD_free(algorithm); }
};

void Require(bool done) {
  if (!done) {
    throw std::runtime_error("the cryptographic library offers no SHA-256");
  }
}

/// Looked up once: a look-up costs more than hashing a small segment.
const EVP_MD* Algorithm() {
  static const std::unique_ptr<EVP_MD, FreeAlgorithm> algorithm(
      EVP_MD_fetch(nullptr, "SHA256", nullptr));
  Require(algorithm != nullptr);
  return algorithm.get();
}

}  // namespace

void Sha256Hasher::FreeContext::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

Sha256Hasher::Sha256Hasher() : context_(EVP_MD_CTX_new()) {
  Require(context_ != nullptr);
  Start();
}

Sha256Hasher::~Sha256Hasher() = default;

void Sha256Hasher::Start() {
  Require(EVP_DigestInit_ex(context_.get(), Algorithm(), nullptr) == 1);
}

void Sha256Hasher::Update(const void* data, std::size_t size) {
  Require(EVP_DigestUpdate(context_.get(), data, size) == 1);
}

crfp_digest_t Sha256Hasher::Finish() {
  crfp_digest_t digest{};
  Require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
  Start();
  return digest;
}

crfp_digest_t Sha256(const void* data, std::size_t size) {
  thread_local Sha256Hasher hasher;  // making a context costs as much as hashing a small segment
  hasher.Update(data, size);
  return hasher.Finish();
}

}  // namespace zefs::refhost
