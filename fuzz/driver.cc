// A driver for the fuzzers where there is no libFuzzer: NAME CORPUS MUTATIONS [SEED]. Runs each
// file of the directory CORPUS, then MUTATIONS random changes of them. The entry aborts at a
// finding; the input stands in the file that the last line names, and the same SEED makes the same
// inputs.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
/// A fuzzer may know better how to change its inputs; null otherwise.
extern "C" [[gnu::weak]] std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                                             std::size_t most, unsigned int seed);

namespace {

namespace fs = boost::filesystem;
using Input = std::vector<std::uint8_t>;

constexpr std::size_t kLargest = 4096;  // bytes of a mutated input, or that it may grow by

Input ReadFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read " + path.string());
  }
  return {std::istreambuf_iterator<char>(in), {}};
}

/// The inputs in the order of their names, so that a seed means the same everywhere.
std::vector<Input> ReadCorpus(const fs::path& directory) {
  std::vector<fs::path> paths;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
    paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<Input> corpus(paths.size());
  std::transform(paths.begin(), paths.end(), corpus.begin(), ReadFile);
  if (corpus.empty()) {
    throw std::runtime_error("no inputs in " + directory.string());
  }
  return corpus;
}

class Mutator {
 public:
  explicit Mutator(std::uint64_t seed) : random_(seed) {}

  std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }

  /// One to eight changes, or what the fuzzer takes for a change.
  void Mutate(Input* input) {
    if (LLVMFuzzerCustomMutator != nullptr) {
      const std::size_t size = input->size();
      input->resize(size + kLargest);
      input->resize(LLVMFuzzerCustomMutator(input->data(), size, input->size(),
                                            static_cast<unsigned int>(random_())));
      return;
    }
    for (std::size_t changes = 1 + Below(8); changes > 0; --changes) {
      Change(input);
    }
    input->resize(std::min(input->size(), kLargest));
  }

 private:
  void Change(Input* input) {
    const std::size_t at = Below(input->size() + 1);
    const auto place = input->begin() + static_cast<std::ptrdiff_t>(at);
    switch (Below(5)) {
      case 0:  // cut
        input->resize(at);
        break;
      case 1:  // one byte
        if (at < input->size()) {
          (*input)[at] = Byte();
        }
        break;
      case 2:  // a run of one byte
        std::fill_n(place, std::min(input->size() - at, std::size_t{1} << Below(5)), Byte());
        break;
      case 3:  // more bytes
        input->insert(place, 1 + Below(100), Byte());
        break;
      default: {  // a piece of itself once more
        const Input piece(place, input->end());
        input->insert(input->end(), piece.begin(), piece.end());
        break;
      }
    }
  }

  /// The bytes at which numbers turn round, more often than others.
  std::uint8_t Byte() {
    constexpr std::uint8_t kEdges[] = {0, 1, 0x7f, 0x80, 0xff};
    const std::size_t pick = Below(10);
    return pick < std::size(kEdges) ? kEdges[pick] : static_cast<std::uint8_t>(random_());
  }

  std::mt19937_64 random_;
};

std::uint64_t Number(const char* text) {
  try {
    std::size_t used = 0;
    const std::uint64_t number = std::stoull(text, &used);
    if (text[used] == '\0') {
      return number;
    }
  } catch (const std::logic_error&) {  // told below
  }
  throw std::runtime_error(std::string("not a number: '") + text + "'");
}

int Run(const fs::path& directory, std::uint64_t mutations, std::uint64_t seed) {
  const std::vector<Input> corpus = ReadCorpus(directory);
  const fs::path last = fs::temp_directory_path() / fs::unique_path("zefs-fuzz-%%%%-%%%%");
  std::printf("%zu inputs, %llu mutations, seed %llu, last input %s\n", corpus.size(),
              static_cast<unsigned long long>(mutations), static_cast<unsigned long long>(seed),
              last.c_str());
  std::fflush(stdout);
  for (const Input& input : corpus) {
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  Mutator mutator(seed);
  for (std::uint64_t i = 0; i < mutations; ++i) {
    Input input = corpus[mutator.Below(corpus.size())];
    mutator.Mutate(&input);
    std::ofstream(last.string(), std::ios::binary)
        .write(reinterpret_cast<const char*>(input.data()),
               static_cast<std::streamsize>(input.size()));
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
  fs::remove(last);
  std::printf("figure %zu fuzz executions\n", corpus.size() + mutations);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 3 && argc != 4) {
      throw std::runtime_error("usage: FUZZER CORPUS MUTATIONS [SEED]");
    }
    return Run(argv[1], Number(argv[2]), argc == 4 ? Number(argv[3]) : 1);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 2;
  }
}
