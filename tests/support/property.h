#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <rapidcheck.h>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/figures.h"

namespace zefs::test {

/// The seed of random tests; ZEFS_TEST_SEED sets another.
inline std::uint64_t PropertySeed() {
  const char* const given = std::getenv("ZEFS_TEST_SEED");
  return given == nullptr ? 20240917 : std::strtoull(given, nullptr, 10);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kShareOfCases = 3;
#else
inline constexpr int kShareOfCases = 1;
#endif

/// How many of very many random cases are tried in this build: a third under a sanitizer, which
/// slows all of them down and looks for what few of them show.
constexpr int CasesOf(int usual) {
  return (usual + kShareOfCases - 1) / kShareOfCases;
}

/// Tries `property` on `cases` random cases and prints the seed. A counterexample is made
/// small and fails the test.
template <typename Property>
void ExpectToHold(const std::string& description, int cases, const Property& property) {
  rc::detail::TestParams params;
  params.seed = PropertySeed();
  params.maxSuccess = cases;
  rc::detail::TestMetadata metadata;
  metadata.description = description;
  const auto result = rc::detail::checkTestable(property, metadata, params);
  std::ostringstream message;
  rc::detail::printResultMessage(result, message);
  TellFigure("random cases of properties", cases);
  std::cout << "ZEFS_TEST_SEED=" << params.seed << '\n';
  EXPECT_TRUE(result.template is<rc::detail::SuccessResult>()) << message.str();
}

}  // namespace zefs::test
