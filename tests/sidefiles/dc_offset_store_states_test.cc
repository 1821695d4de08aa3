#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "sidefiles/dc_offset_store.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"

// The life of a record: in memory, on file, out with the host, gone or back. Every sequence of
// operations up to a length beside a model of them.

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::DecodeDcOffset;

constexpr std::size_t kThreshold = 2;  // records in memory that are written out

/// A store as it is meant to be. Within a batch the order of records means nothing, so files are
/// kept sorted.
class Model {
 public:
  using Records = std::vector<Fields>;

  std::set<Fields> memory;
  std::map<std::string, Records> files;  ///< stores and lists set aside, by path
  Records host;                          ///< the list that the host has, its offsets those it got
  bool open = false;
  std::string path;

  int Open() {
    files[path];
    open = true;
    return 0;
  }
  int Store(const Fields& record) {
    memory.insert(record);
    if (memory.size() >= kThreshold) {
      Append({memory.begin(), memory.end()});
      memory.clear();
    }
    return 0;
  }
  int Flush() {
    if (!memory.empty()) {
      Append({memory.begin(), memory.end()});
      memory.clear();
      open = false;
    }
    return 0;
  }
  int Read() {
    const auto file = files.find(path);
    if (file == files.end()) {
      return 0;
    }
    host = file->second;
    open = false;
    files.erase(file);
    if (!host.empty()) {
      files[Aside()] = host;
    }
    return 0;
  }
  /// The host found `dcOffset` for the records of its list.
  int Merge(std::int64_t dcOffset) {
    std::set<Fields> wanted;
    for (Fields& record : host) {
      std::get<3>(record) = dcOffset;
      if (dcOffset < 0 && dcOffset != -2) {
        wanted.insert(record);
      }
    }
    if (!wanted.empty()) {
      Append({wanted.begin(), wanted.end()});
    }
    host.clear();
    files.erase(Aside());
    return 0;
  }
  int Close() {
    open = false;
    return 0;
  }
  int Move(const std::string& to) {
    Flush();
    path = to;
    return Close();
  }
  int EndAndMakeAnother(const std::string& at) {
    Flush();
    Close();
    path = at;
    return 0;
  }

 private:
  std::string Aside() const { return path + ".tmp"; }

  void Append(const Records& batch) {
    Open();
    Records& file = files[path];
    file.insert(file.end(), batch.begin(), batch.end());
    std::sort(file.begin(), file.end());
  }
};

/// The store under test, with the same operations.
class Subject {
 public:
  explicit Subject(const std::string& path) { EndAndMakeAnother(path); }

  std::unique_ptr<DcOffsetStore> store;
  std::vector<DCOffset> host;

  int Merge(std::int64_t dcOffset) {
    for (DCOffset& record : host) {
      record.dcOffset = dcOffset;
    }
    return store->MergeDcOffset(std::exchange(host, {}));
  }
  int EndAndMakeAnother(const std::string& path) {
    store.reset();
    store = std::make_unique<DcOffsetStore>(path, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
    return 0;
  }
};

class DcOffsetStoreSequencesTest : public DcOffsetStoreFixture {
 protected:
  struct Operation {
    const char* name;
    std::function<int(Subject&)> doIt;
    std::function<int(Model&)> model;
  };

  DcOffsetStoreSequencesTest() : failures_(8) { Threshold(kThreshold); }

  /// The files of the directory by path, with their records sorted.
  std::map<std::string, Model::Records> Files() const {
    std::map<std::string, Model::Records> files;
    for (const auto& entry : boost::filesystem::directory_iterator(dir_.path())) {
      const std::string path = entry.path().string();
      const Bytes bytes = ReadBytes(path);
      Model::Records& records = files[path];
      for (std::size_t at = 0; at < bytes.size(); at += kDcOffsetRecordBytes) {
        records.push_back(FieldsOf(DecodeDcOffset(&bytes[at], bytes.size() - at)));
      }
      std::sort(records.begin(), records.end());
    }
    return files;
  }

  void ExpectAsInModel(const Model& model, const Subject& subject) const {
    const DcOffsetStoreTestPeer peer{*subject.store};
    EXPECT_EQ(model.path, peer.path());
    EXPECT_EQ(model.open, peer.fd() != -1);
    EXPECT_EQ(Model::Records(model.memory.begin(), model.memory.end()),
              Sorted({peer.offsets().begin(), peer.offsets().end()}));
    EXPECT_EQ(model.host, Sorted(subject.host));
    EXPECT_EQ(model.files, Files());
  }

  void RunSequence(const std::vector<std::size_t>& sequence) {
    for (const auto& entry : boost::filesystem::directory_iterator(dir_.path())) {
      boost::filesystem::remove(entry.path());
    }
    Model model;
    model.path = path_;
    Subject subject(path_);
    std::string done;
    for (const std::size_t number : sequence) {
      const Operation& operation = operations_.at(number);
      done += std::string(" ") + operation.name;
      ASSERT_EQ(operation.model(model), operation.doIt(subject)) << done;
      ExpectAsInModel(model, subject);
      ASSERT_FALSE(HasFailure()) << done;
    }
  }

  /// Every sequence of `length` operations behind those of `prefix`.
  void RunAll(const std::vector<std::size_t>& prefix, int length) {
    std::size_t codes = 1;
    for (int i = 0; i < length; ++i) {
      codes *= operations_.size();
    }
    for (std::size_t code = 0; code < codes && !HasFailure(); ++code) {
      std::vector<std::size_t> sequence = prefix;
      std::size_t rest = code;
      for (int i = 0; i < length; ++i, rest /= operations_.size()) {
        sequence.push_back(rest % operations_.size());
      }
      RunSequence(sequence);
    }
  }

  const std::string moved_ = (dir_ / "moved").string();
  const std::vector<Operation> operations_ = {
      {"store 1", [](Subject& s) { return Store(*s.store, Wanted(1)); },
       [](Model& m) { return m.Store(FieldsOf(Wanted(1))); }},
      {"store 2", [](Subject& s) { return Store(*s.store, Wanted(2)); },
       [](Model& m) { return m.Store(FieldsOf(Wanted(2))); }},
      {"open", [](Subject& s) { return s.store->Open(); }, [](Model& m) { return m.Open(); }},
      {"flush", [](Subject& s) { return s.store->Flush(); }, [](Model& m) { return m.Flush(); }},
      {"read", [](Subject& s) { return s.store->Read(&s.host); },
       [](Model& m) { return m.Read(); }},
      {"all found", [](Subject& s) { return s.Merge(4096); },
       [](Model& m) { return m.Merge(4096); }},
      {"all still open", [](Subject& s) { return s.Merge(-1); },
       [](Model& m) { return m.Merge(-1); }},
      {"all given up", [](Subject& s) { return s.Merge(-2); },
       [](Model& m) { return m.Merge(-2); }},
      {"close",
       [](Subject& s) {
         s.store->Destory();
         return 0;
       },
       [](Model& m) { return m.Close(); }},
      {"move",
       [this](Subject& s) {
         s.store->UpdatePath(moved_);
         return 0;
       },
       [this](Model& m) { return m.Move(moved_); }},
      {"new life", [this](Subject& s) { return s.EndAndMakeAnother(path_); },
       [this](Model& m) { return m.EndAndMakeAnother(path_); }},
  };
  refhost::LogRecorder failures_;
};

TEST_F(DcOffsetStoreSequencesTest, EverySequenceOfThreeDoesWhatTheModelDoes) {
  RunAll({}, 3);
}

TEST_F(DcOffsetStoreSequencesTest, EverySequenceOfThreeWithRecordsInMemoryOnFileAndWithTheHost) {
  // Both records are with the host, one is on file again, and one is in memory.
  RunAll({0, 1, 4, 0, 3, 1}, 3);
}

}  // namespace
}  // namespace zefs::test
