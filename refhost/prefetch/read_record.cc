#include "refhost/prefetch/read_record.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <utility>

#include "host/zefs_log.h"
#include "refhost/store/file_handle.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr std::size_t kLongestRecord = 4096;
constexpr const char* kNewSuffix = ".new";

struct Field {
  const char* name;
  std::uint64_t ReadAheadFigures::*figure;
};
constexpr std::array kFields{
    Field{"plans", &ReadAheadFigures::plans}, Field{"containers", &ReadAheadFigures::containers},
    Field{"fetched_bytes", &ReadAheadFigures::fetchedBytes}, Field{"hits", &ReadAheadFigures::hits},
    Field{"misses", &ReadAheadFigures::misses}};

ReadAheadFigures Parse(const std::string& text) {
  ReadAheadFigures figures;
  std::istringstream lines(text);
  for (const Field& field : kFields) {
    std::string name;
    lines >> name >> figures.*field.figure;
    if (lines.fail() || name != field.name) {
      return {};
    }
  }
  return figures;
}

}  // namespace

ReadAheadFigures ReadRecord::Load() const {
  try {
    std::string text(kLongestRecord, '\0');
    text.resize(FileHandle::Open(path_, O_RDONLY).ReadAt(0, text.data(), text.size()));
    return Parse(text);
  } catch (const StoreError&) {
    return {};
  }
}

void ReadRecord::Add(const ReadAheadFigures& figures) const {
  const ReadAheadFigures former = Load();
  std::string text;
  for (const Field& field : kFields) {
    text += std::string(field.name) + " " +
            std::to_string(former.*field.figure + figures.*field.figure) + "\n";
  }
  const std::string fresh = path_ + kNewSuffix;
  try {
    FileHandle::Open(fresh, O_WRONLY | O_CREAT | O_TRUNC).WriteAt(0, text);
    if (::rename(fresh.c_str(), path_.c_str()) != 0) {
      throw SystemError("write", path_, errno);
    }
  } catch (const StoreError& error) {
    ZEFS_LOG(kLogRecoverable, "%s", error.what());
  }
}

}  // namespace zefs::refhost
