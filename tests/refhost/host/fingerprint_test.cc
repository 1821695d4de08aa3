#include "host/fingerprint.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "refhost/host/sha256.h"

namespace zefs::refhost {
namespace {

std::string TextOf(const crfp_digest_t& digest) {
  FingerprintText text{};
  EXPECT_EQ(CRFPDigestToString_r(digest.data(), kCrfpDigestKind, text.data(), text.size()), 0);
  return text.data();
}

std::string Sha256Text(const std::string& data) {
  return TextOf(Sha256(data.data(), data.size()));
}

TEST(Sha256Test, KnownVectors) {
  EXPECT_EQ(Sha256Text(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Text("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Sha256Text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(Sha256Text(std::string(1000000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Test, EachCallStartsAfresh) {
  const std::string first = Sha256Text("abc");
  Sha256Text("something else");
  EXPECT_EQ(Sha256Text("abc"), first);
}

TEST(FingerprintTest, EveryByteValueSurvivesTheRoundTrip) {
  for (int start = 0; start < 256; start += 32) {
    crfp_digest_t digest;
    for (std::size_t i = 0; i < digest.size(); ++i) {
      digest[i] = static_cast<unsigned char>(start + static_cast<int>(i));
    }
    crfp_digest_t back{};
    EXPECT_EQ(CRFPStringToDigest_r(TextOf(digest).c_str(), kCrfpDigestKind, back.data()), 0);
    EXPECT_EQ(back, digest);
  }
}

TEST(FingerprintTest, TextIsLowerCaseHighDigitFirst) {
  crfp_digest_t digest{};
  digest[0] = 0xa1;
  digest[31] = 0x0f;
  EXPECT_EQ(TextOf(digest), "a1" + std::string(60, '0') + "0f");
}

TEST(FingerprintTest, ASmallBufferIsRefusedUnchanged) {
  const crfp_digest_t digest{};
  FingerprintText text;
  text.fill('#');
  for (const unsigned long size : {0UL, 1UL, 64UL}) {
    EXPECT_NE(CRFPDigestToString_r(digest.data(), kCrfpDigestKind, text.data(), size), 0) << size;
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c == '#'; }));
  }
}

TEST(FingerprintTest, AnUnknownKindIsRefusedUnchanged) {
  crfp_digest_t digest{};
  FingerprintText text;
  text.fill('#');
  for (const int kind : {0, 1, 2, 4, -3}) {
    EXPECT_NE(CRFPDigestToString_r(digest.data(), kind, text.data(), text.size()), 0) << kind;
    EXPECT_NE(CRFPStringToDigest_r(std::string(64, '1').c_str(), kind, digest.data()), 0) << kind;
    EXPECT_EQ(CRFPIsEmptyDigest(digest.data(), kind), 0) << kind;
  }
  EXPECT_EQ(text[0], '#');
  EXPECT_EQ(digest, crfp_digest_t{});
}

TEST(FingerprintTest, TextThatIsNoFingerprintIsRefusedUnchanged) {
  const std::string good(64, 'a');
  crfp_digest_t digest;
  digest.fill(7);
  const crfp_digest_t before = digest;
  std::string badFirst = good;
  badFirst[0] = 'g';
  std::string badLast = good;
  badLast[63] = '/';
  std::string upper = good;
  upper[10] = 'A';
  std::string negative = good;
  negative[20] = '\xe4';
  for (const std::string& text : {std::string(), good.substr(1), good + "a", badFirst, badLast,
                                  upper, negative, good.substr(0, 1)}) {
    EXPECT_NE(CRFPStringToDigest_r(text.c_str(), kCrfpDigestKind, digest.data()), 0) << text;
    EXPECT_EQ(digest, before);
  }
}

TEST(FingerprintTest, TheEmptyFingerprintIsAllZero) {
  crfp_digest_t digest{};
  EXPECT_EQ(CRFPIsEmptyDigest(digest.data(), kCrfpDigestKind), 1);
  EXPECT_EQ(TextOf(digest), CRFPEmptyFP(kCrfpDigestKind));
  EXPECT_EQ(std::string(CRFPEmptyFP(kCrfpDigestKind)), std::string(64, '0'));
  for (const std::size_t place : {0U, 15U, 31U}) {
    digest = crfp_digest_t{};
    digest[place] = 1;
    EXPECT_EQ(CRFPIsEmptyDigest(digest.data(), kCrfpDigestKind), 0) << place;
  }
}

}  // namespace
}  // namespace zefs::refhost
