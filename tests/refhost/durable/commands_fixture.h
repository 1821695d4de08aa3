#pragma once

#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::test {

/// A directory for a store and for what is put into it, and what the commands say.
class CommandsTest : public ::testing::Test {
 protected:
  std::string In(const std::string& name) const { return (dir / name).string(); }

  nlohmann::json Json() const { return nlohmann::json::parse(out.str()); }
  void Forget() {
    out.str("");
    err.str("");
  }

  const SmallThresholds thresholds{1024, 100000};
  const TempDir dir;
  std::ostringstream out;
  std::ostringstream err;
};

}  // namespace zefs::test
