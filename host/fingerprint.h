#pragma once

#include <array>

#include "host/visibility.h"

/// A binary fingerprint: 32 raw bytes, digest kind 3.
using crfp_digest_t = std::array<unsigned char, 32>;

/// The digest kind that the library uses in every call below.
inline constexpr int kCrfpDigestKind = 3;

/// Text form of a fingerprint: 64 characters and a terminating NUL.
using FingerprintText = std::array<char, 65>;

/// Writes the 64-character text of `digest` and a NUL into `buffer` (`size` bytes, at least 65).
/// Returns 0, or non-zero if `kind` is unknown or `size` too small; `buffer` is then unchanged.
/// Thread-safe. Supplied by the host.
ZEFS_HOST_API int CRFPDigestToString_r(const unsigned char* digest, int kind, char* buffer,
                                       unsigned long size);

/// Reads the 64-character `text` into the 32 bytes at `digest`. Returns 0, or non-zero if the text
/// is no fingerprint of this kind; `digest` is then unchanged. Thread-safe. Supplied by the host.
ZEFS_HOST_API int CRFPStringToDigest_r(const char* text, int kind, unsigned char* digest);

/// 1 if `digest` is the empty fingerprint, else 0. Thread-safe. Supplied by the host.
ZEFS_HOST_API int CRFPIsEmptyDigest(const unsigned char* digest, int kind);

/// Text of the empty fingerprint; the string lives as long as the process. Supplied by the host.
ZEFS_HOST_API const char* CRFPEmptyFP(int kind);
