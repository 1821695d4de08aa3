// The states of a journal, and every sequence of operations up to a length beside a model of them.

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>

#include "sidefiles/extent_journal.h"
#include "tests/sidefiles/extent_journal_fixture.h"
#include "tests/support/vtable_slot.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;

using Peer = ExtentJournalTestPeer;

class ExtentJournalStatesTest : public ExtentJournalFixture {};

TEST_F(ExtentJournalStatesTest, OnlyTheDestructorIsVirtual) {
  using J = ExtentJournal;
  constexpr auto kNotVirtual = static_cast<std::size_t>(-1);
  using AddFields =
      int (J::*)(long, long, long, unsigned long, std::array<unsigned char, 32>, unsigned long);
  EXPECT_TRUE(std::has_virtual_destructor_v<J>);
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Open));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Start));
  EXPECT_EQ(kNotVirtual,
            SlotOf(static_cast<int (J::*)(const Extent&, op_t, unsigned long)>(&J::Add)));
  EXPECT_EQ(kNotVirtual, SlotOf(static_cast<AddFields>(&J::Add)));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Del));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Flush));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Write));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Sync));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Read));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Replay));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Get));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::HasJournal));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Close));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Destroy));
  EXPECT_EQ(kNotVirtual, SlotOf(&J::Reset));
}

TEST_F(ExtentJournalStatesTest, EachOperationLeadsFromStateToState) {
  struct Row {
    const char* name;
    int (*operation)(ExtentJournal&, std::vector<Extent>*);
    int fromIdle, fromOpened, fromRunning, fromStopped;  // results
    State afterIdle, afterOpened, afterRunning, afterStopped;
  };
  constexpr State kI = State::kIdle, kO = State::kOpened, kR = State::kRunning;
  constexpr State kS = State::kStopped;
  const std::vector<Row> rows = {
      {"Start", [](auto& j, auto*) { return j.Start(); }, 0, 0, 0, 0, kR, kR, kR, kR},
      {"Add", [](auto& j, auto*) { return j.Add(NthExtent(1), ADD, 0); }, -1, -1, 0, -1, kI, kO, kR,
       kS},
      {"Add of fields", [](auto& j, auto*) { return j.Add(0, 1, 0, 64, {}, 0); }, -1, -1, 0, -1, kI,
       kO, kR, kS},
      {"Del of fields", [](auto& j, auto*) { return j.Del(0, 1, 0, 64, {}, 0); }, -1, -1, 0, -1, kI,
       kO, kR, kS},
      {"Flush", [](auto& j, auto*) { return j.Flush(false); }, -1, -1, 0, -1, kI, kO, kR, kS},
      {"Flush and sync", [](auto& j, auto*) { return j.Flush(true); }, -1, -1, 0, -1, kI, kO, kR,
       kS},
      {"Write nothing", [](auto& j, auto*) { return j.Write({}); }, 0, 0, 0, 0, kI, kO, kR, kS},
      {"Write", [](auto& j, auto*) { return j.Write({NthExtent(1)}); }, -1, 0, 0, -1, kI, kO, kR,
       kS},
      {"Sync", [](auto& j, auto*) { return j.Sync(); }, -1, 0, 0, -1, kI, kO, kR, kS},
      {"Read", [](auto& j, auto* out) { return j.Read(out); }, -1, -1, -1, -1, kI, kO, kR, kS},
      {"Replay", [](auto& j, auto* out) { return j.Replay(out); }, -1, 0, 0, 0, kI, kR, kR, kR},
      {"Get", [](auto& j, auto* out) { return j.Get(out); }, 0, -1, 0, -1, kI, kO, kR, kS},
      {"HasJournal", [](auto& j, auto*) { return j.HasJournal() ? 1 : 0; }, 0, 1, 1, 1, kI, kO, kR,
       kS},
      {"Close", [](auto& j, auto*) { return j.Close(); }, 0, 0, 0, 0, kI, kS, kS, kS},
      {"Destroy", [](auto& j, auto*) { return j.Destroy(); }, 0, 0, 0, 0, kI, kI, kI, kI},
      {"Reset",
       [](auto& j, auto*) {
         j.Reset();
         return 0;
       },
       0, 0, 0, 0, kI, kO, kR, kS},
  };
  for (const Row& row : rows) {
    const int results[] = {row.fromIdle, row.fromOpened, row.fromRunning, row.fromStopped};
    const State after[] = {row.afterIdle, row.afterOpened, row.afterRunning, row.afterStopped};
    for (const State from : {State::kIdle, State::kOpened, State::kRunning, State::kStopped}) {
      const auto index = static_cast<std::size_t>(from);
      SCOPED_TRACE(std::string(row.name) + " from state " + std::to_string(index));
      fs::remove_all(Directory());
      ExtentJournal journal(Path(), false);
      if (from == State::kOpened) {
        ASSERT_EQ(0, journal.Open());
      } else if (from != State::kIdle) {
        ASSERT_EQ(0, journal.Start());
      }
      if (from == State::kStopped) {
        ASSERT_EQ(0, journal.Close());
      }
      ASSERT_EQ(from, StateOf(journal, HasFile()));
      std::vector<Extent> out;
      EXPECT_EQ(results[index], row.operation(journal, &out));
      EXPECT_EQ(after[index], StateOf(journal, HasFile()));
      EXPECT_TRUE(Peer::Mutex(journal).try_lock());
      Peer::Mutex(journal).unlock();
    }
  }
}

// --- sequences -------------------------------------------------------------------------------

/// A journal as it is meant to be; records are the numbers of extents.
class Model {
 public:
  bool started = false;
  bool opened = false;
  std::optional<std::vector<int>> file;  ///< what lies in it, if there is one
  std::vector<int> buffer;
  std::vector<int> out;  ///< of the last operation that hands records back

  int Open() {
    opened = true;
    file = file.value_or(std::vector<int>());
    return 0;
  }
  int Start() {
    Open();
    started = true;
    return 0;
  }
  int Add(int number) {
    if (!started || !opened) {
      return -1;
    }
    buffer.push_back(number);
    return 0;
  }
  int Flush() {
    if (!started) {
      return -1;
    }
    file->insert(file->end(), buffer.begin(), buffer.end());
    buffer.clear();
    return 0;
  }
  int Close() {
    started = opened = false;
    return 0;
  }
  int Replay() {
    Close();
    if (!file) {
      return -1;
    }
    out = *file;
    file.reset();
    return Start();
  }
  int Get() {
    out.clear();
    if (!file) {
      return 0;
    }
    const int flushed = Flush();
    return flushed != 0 ? flushed : Replay();
  }
  int Destroy() {
    Close();
    buffer.clear();
    file.reset();
    return 0;
  }
  int EndAndMakeAnother() {
    if (opened) {
      Flush();
      Close();
    }
    buffer.clear();
    return 0;
  }
};

/// The journal under test, with the same operations.
class Subject {
 public:
  explicit Subject(const std::string& path) : path_(path) { EndAndMakeAnother(); }

  std::unique_ptr<ExtentJournal> journal;
  std::vector<Extent> out;

  int EndAndMakeAnother() {
    journal.reset();
    journal = std::make_unique<ExtentJournal>(path_, false);
    return 0;
  }

 private:
  const std::string path_;
};

struct Operation {
  const char* name;
  std::function<int(Subject&, int number)> doIt;
  std::function<int(Model&, int number)> model;
};

const std::vector<Operation>& Operations() {
  static const std::vector<Operation> operations = {
      {"Open", [](Subject& s, int) { return Peer::Opened(*s.journal) ? 0 : s.journal->Open(); },
       [](Model& m, int) { return m.opened ? 0 : m.Open(); }},
      {"Start", [](Subject& s, int) { return s.journal->Start(); },
       [](Model& m, int) { return m.Start(); }},
      {"Add", [](Subject& s, int number) { return s.journal->Add(NthExtent(number), ADD, 0); },
       [](Model& m, int number) { return m.Add(number); }},
      {"Flush", [](Subject& s, int) { return s.journal->Flush(false); },
       [](Model& m, int) { return m.Flush(); }},
      {"Get", [](Subject& s, int) { return s.journal->Get(&s.out); },
       [](Model& m, int) { return m.Get(); }},
      {"Replay", [](Subject& s, int) { return s.journal->Replay(&s.out); },
       [](Model& m, int) { return m.Replay(); }},
      {"Close", [](Subject& s, int) { return s.journal->Close(); },
       [](Model& m, int) { return m.Close(); }},
      {"Destroy", [](Subject& s, int) { return s.journal->Destroy(); },
       [](Model& m, int) { return m.Destroy(); }},
      {"Reset",
       [](Subject& s, int) {
         s.journal->Reset();
         return 0;
       },
       [](Model& m, int) {
         m.buffer.clear();
         return 0;
       }},
      {"new life", [](Subject& s, int) { return s.EndAndMakeAnother(); },
       [](Model& m, int) { return m.EndAndMakeAnother(); }},
  };
  return operations;
}

class ExtentJournalSequencesTest : public ExtentJournalFixture {
 protected:
  ExtentJournalSequencesTest() : failures_(8) {}

  static std::string EncodedNumbers(const std::vector<int>& numbers) {
    std::string bytes;
    for (const int number : numbers) {
      bytes += Encoded(NthExtent(number));
    }
    return bytes;
  }

  void ExpectAsInModel(const Model& model, const Subject& subject) const {
    EXPECT_EQ(model.started, Peer::Started(*subject.journal));
    EXPECT_EQ(model.opened, Peer::Opened(*subject.journal));
    EXPECT_EQ(model.opened, Peer::Descriptor(*subject.journal) >= 0);
    EXPECT_EQ(model.buffer.size(), Buffered(*subject.journal));
    EXPECT_EQ(EncodedNumbers(model.out), Encoded(subject.out));
    EXPECT_EQ(model.file.has_value(), subject.journal->HasJournal());
    EXPECT_EQ(EncodedNumbers(model.file.value_or(std::vector<int>())), BytesOf(Path()));
    EXPECT_FALSE(HasReplayFile());
  }

  /// Runs the operations that the digits of `code` name, to base Operations().size().
  void RunSequence(int code, int length) {
    fs::remove(Path());
    Model model;
    Subject subject(Path());
    std::string done;
    const int base = static_cast<int>(Operations().size());
    for (int number = 0; number < length; ++number, code /= base) {
      const Operation& operation = Operations().at(static_cast<std::size_t>(code % base));
      done += std::string(" ") + operation.name;
      ASSERT_EQ(operation.model(model, number), operation.doIt(subject, number)) << done;
      ExpectAsInModel(model, subject);
      ASSERT_FALSE(HasFailure()) << done;
    }
  }

  LogRecorder failures_;
};

TEST_F(ExtentJournalSequencesTest, EverySequenceOfFourOperationsDoesWhatTheModelDoes) {
  fs::create_directory(Directory());
  const int base = static_cast<int>(Operations().size());
  for (int code = 0; code < base * base * base * base; ++code) {
    RunSequence(code, 4);
    if (HasFailure()) {
      return;
    }
  }
}

TEST_F(ExtentJournalSequencesTest, EverySequenceOfThreeOnARunningJournalWithRecords) {
  fs::create_directory(Directory());
  // Start, Add, Flush and Add come first: records in the file and in the buffer.
  const int base = static_cast<int>(Operations().size());
  const int prefix = 1 + base * (2 + base * (3 + base * 2));
  for (int rest = 0; rest < base * base * base; ++rest) {
    RunSequence(prefix + base * base * base * base * rest, 7);
    if (HasFailure()) {
      return;
    }
  }
}

}  // namespace
