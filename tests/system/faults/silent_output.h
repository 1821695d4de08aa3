#pragma once

#include <iostream>

namespace zefs::test {

/// What is written to std::cout while it lives is dropped.
class SilentOutput {
 public:
  SilentOutput() : buffer_(std::cout.rdbuf(nullptr)) {}
  ~SilentOutput() {
    std::cout.rdbuf(buffer_);
    std::cout.clear();
  }
  SilentOutput(const SilentOutput&) = delete;
  SilentOutput& operator=(const SilentOutput&) = delete;

 private:
  std::streambuf* buffer_;
};

}  // namespace zefs::test
