#include "refhost/replay/trace_reader.h"

#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/refhost/replay/trace_files.h"
#include "tests/support/temp_dir.h"

namespace zefs::refhost {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class TraceReaderTest : public ::testing::Test {
 protected:
  std::vector<std::string> Lines() const {
    TraceReader reader(path_);
    std::vector<std::string> lines;
    std::string_view line;
    while (reader.Next(&line)) {
      lines.emplace_back(line);
    }
    EXPECT_FALSE(reader.Next(&line));  // and it stays so
    return lines;
  }

  /// What reading all lines fails with, without the directory.
  std::string ErrorText() const {
    try {
      Lines();
    } catch (const TraceError& error) {
      const std::string text = error.what();
      EXPECT_EQ(text.find('\n'), std::string::npos);
      EXPECT_THAT(text, StartsWith(path_));
      return text.substr(path_.size());
    }
    return "(none)";
  }

  /// Lines enough to need the buffer many times over, of changing length.
  static std::vector<std::string> ManyLines() {
    std::vector<std::string> lines;
    for (int i = 0; i < 30000; ++i) {
      lines.push_back("W " + std::to_string(i * 37) +
                      std::string(static_cast<std::size_t>(i % 50), '7'));
    }
    return lines;
  }

  static std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
      text += line + "\n";
    }
    return text;
  }

  test::TempDir directory_;
  std::string path_ = (directory_ / "trace").string();
};

TEST_F(TraceReaderTest, PlainText) {
  test::WriteFile(path_, "W 0 1\nR 0 1\n");
  EXPECT_THAT(Lines(), ElementsAre("W 0 1", "R 0 1"));
}

TEST_F(TraceReaderTest, Gzip) {
  test::AppendGzip(path_, "W 0 1\nR 0 1\n");
  EXPECT_THAT(Lines(), ElementsAre("W 0 1", "R 0 1"));
}

TEST_F(TraceReaderTest, GzipMembersOneBehindTheOther) {
  test::AppendGzip(path_, "W 0 1\nR 0");
  test::AppendGzip(path_, " 1\nR 5 5\n");
  EXPECT_THAT(Lines(), ElementsAre("W 0 1", "R 0 1", "R 5 5"));
}

TEST_F(TraceReaderTest, TheLastNewlineMayBeMissing) {
  test::WriteFile(path_, "W 0 1\nR 0 1");
  EXPECT_THAT(Lines(), ElementsAre("W 0 1", "R 0 1"));
}

TEST_F(TraceReaderTest, EmptyLinesAreLines) {
  test::WriteFile(path_, "\n\nW 0 1\n\n");
  EXPECT_THAT(Lines(), ElementsAre("", "", "W 0 1", ""));
}

TEST_F(TraceReaderTest, AnEmptyFileHasNoLine) {
  test::WriteFile(path_, "");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(TraceReaderTest, GzipOfNothingHasNoLine) {
  test::AppendGzip(path_, "");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(TraceReaderTest, LinesAcrossTheBufferAreWhole) {
  const std::vector<std::string> lines = ManyLines();
  test::WriteFile(path_, Joined(lines));
  EXPECT_EQ(Lines(), lines);
  test::WriteFile(path_, "");
  test::AppendGzip(path_, Joined(lines));
  EXPECT_EQ(Lines(), lines);
}

TEST_F(TraceReaderTest, PositionCountsLinesFromOne) {
  test::WriteFile(path_, "a\nb\n");
  TraceReader reader(path_);
  std::string_view line;
  ASSERT_TRUE(reader.Next(&line));
  EXPECT_EQ(reader.Position(), path_ + ":1");
  ASSERT_TRUE(reader.Next(&line));
  EXPECT_EQ(reader.Position(), path_ + ":2");
}

TEST_F(TraceReaderTest, TellsHowFarItIsInTheFile) {
  test::AppendGzip(path_, Joined(ManyLines()));
  const std::uint64_t size = test::ReadFile(path_).size();
  TraceReader reader(path_);
  EXPECT_EQ(reader.FileBytes(), size);
  std::string_view line;
  while (reader.Next(&line)) {
    ASSERT_LE(reader.BytesRead(), size);
  }
  EXPECT_EQ(reader.BytesRead(), size);
}

TEST_F(TraceReaderTest, TheLongestLineAndOneThatIsLonger) {
  const std::string longest(1024, '1');
  test::WriteFile(path_, longest + "\nx\n");
  EXPECT_THAT(Lines(), ElementsAre(longest, "x"));
  test::WriteFile(path_, longest);
  EXPECT_THAT(Lines(), ElementsAre(longest));
  test::WriteFile(path_, "x\n" + longest + "1\n");
  EXPECT_EQ(ErrorText(), ":2: the line is longer than 1024 characters");
  test::WriteFile(path_, std::string(1 << 20, '1'));
  EXPECT_EQ(ErrorText(), ":1: the line is longer than 1024 characters");
}

TEST_F(TraceReaderTest, AMissingFileIsNamed) {
  EXPECT_EQ(ErrorText(), ": cannot be opened: No such file or directory");
}

TEST_F(TraceReaderTest, ADirectoryIsNoTrace) {
  path_ = directory_.path().string();
  EXPECT_EQ(ErrorText(), ": cannot be read: Is a directory");
}

TEST_F(TraceReaderTest, GzipCutShortIsToldAtEveryLength) {
  test::AppendGzip(path_, Joined(ManyLines()));
  const std::string whole = test::ReadFile(path_);
  for (std::size_t size = 2; size < whole.size(); size += size < 40 ? 1 : whole.size() / 50) {
    test::WriteFile(path_, whole.substr(0, size));
    EXPECT_THAT(ErrorText(),
                ::testing::MatchesRegex(
                    ": cannot be read( after line [0-9]+)?: the gzip data is cut short"))
        << size << " of " << whole.size();
  }
  test::WriteFile(path_, whole.substr(0, whole.size() - 1));
  EXPECT_THAT(ErrorText(), ::testing::EndsWith("the gzip data is cut short"));
}

TEST_F(TraceReaderTest, DamagedGzipIsTold) {
  test::AppendGzip(path_, Joined(ManyLines()));
  std::string content = test::ReadFile(path_);
  content[content.size() - 6] = static_cast<char>(content[content.size() - 6] ^ 1);  // checksum
  test::WriteFile(path_, content);
  EXPECT_EQ(ErrorText(),
            ": cannot be read after line 30000: damaged gzip data: incorrect data check");
  content[3] = static_cast<char>(0xff);  // flags
  test::WriteFile(path_, content);
  EXPECT_EQ(ErrorText(), ": cannot be read: damaged gzip data: unknown header flags set");
}

TEST_F(TraceReaderTest, DataBehindTheGzipDataIsToldOnceAllLinesAreRead) {
  for (const std::string behind : {"W 0 1\n", "x", "\n", "\x1f", "\x1fW 0 1\n"}) {
    for (const std::size_t lines : {std::size_t{2}, std::size_t{30000}}) {
      test::WriteFile(path_, "");
      std::vector<std::string> text = ManyLines();
      text.resize(lines);
      test::AppendGzip(path_, Joined(text));
      test::WriteFile(path_, test::ReadFile(path_) + behind);
      EXPECT_EQ(ErrorText(), ": cannot be read after line " + std::to_string(lines) +
                                 ": data behind the end of the gzip data");
    }
  }
  test::AppendGzip(path_, "R 0 1\n");  // a member behind what is none
  EXPECT_THAT(ErrorText(), ::testing::EndsWith("data behind the end of the gzip data"));
}

TEST_F(TraceReaderTest, DamagedOrCutSecondMemberIsTold) {
  test::AppendGzip(path_, "W 0 1\n");
  const std::string first = test::ReadFile(path_);
  for (const auto& [second, reason] : std::vector<std::pair<std::string, std::string>>{
           {"\x1f\x8b", "the gzip data is cut short"},
           {"\x1f\x8bxxxxxxxx", "damaged gzip data: unknown compression method"}}) {
    test::WriteFile(path_, first + second);
    EXPECT_EQ(ErrorText(), ": cannot be read after line 1: " + reason);
  }
}

TEST_F(TraceReaderTest, EmptyMembersAreNoEnd) {
  test::AppendGzip(path_, "");
  test::AppendGzip(path_, "W 0 1\n");
  test::AppendGzip(path_, "");
  test::AppendGzip(path_, "R 0 1\n");
  EXPECT_THAT(Lines(), ElementsAre("W 0 1", "R 0 1"));
}

TEST_F(TraceReaderTest, OneByteOfAGzipHeaderIsPlainText) {
  test::WriteFile(path_, "\x1f");
  EXPECT_THAT(Lines(), ElementsAre("\x1f"));
}

TEST_F(TraceReaderTest, GzipThatComesByteByByteThroughAPipe) {
  test::AppendGzip(path_, "W 0 1\n");
  test::AppendGzip(path_, "R 0 1\n");
  const std::string content = test::ReadFile(path_);
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe(ends), 0);
  std::thread writer([&] {
    for (const char byte : content) {
      EXPECT_EQ(write(ends[1], &byte, 1), 1);
    }
    close(ends[1]);
  });
  path_ = "/dev/fd/" + std::to_string(ends[0]);
  EXPECT_THAT(Lines(), ElementsAre("W 0 1", "R 0 1"));
  writer.join();
  close(ends[0]);
}

}  // namespace
}  // namespace zefs::refhost
