#pragma once

#include <cstdint>
#include <list>
#include <sstream>
#include <string>
#include <vector>

#include "tests/persistent/read_path_fixture.h"

namespace zefs::test {

/// Keeps `prefetchSpanBytes` as it is now, and puts it back.
class SavedSpan {
 public:
  SavedSpan() : saved_(Config().Get(&FileSystemDaemonConfig::prefetchSpanBytes)) {}
  ~SavedSpan() { Config().Set(&FileSystemDaemonConfig::prefetchSpanBytes, saved_); }
  SavedSpan(const SavedSpan&) = delete;
  SavedSpan& operator=(const SavedSpan&) = delete;

 private:
  static FileSystemDaemonConfig& Config() { return FileSystemDaemonConfig::GetInstance(); }
  std::uint32_t saved_;
};

/// A loaded table whose plans are kept, whatever their span, unless a test says otherwise.
class PrefetchTest : public ReadPathTest {
 protected:
  using CMappingTable = Aldenta::Qnd::Morene::Zefs::CMappingTable;
  using DCInfo = CMappingTable::DCInfo;
  using Plan = std::list<DCInfo>;

  PrefetchTest() {
    Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
    Set(&FileSystemDaemonConfig::prefetchSpanBytes, UINT32_MAX);
  }

  static constexpr std::uint32_t kTag = 7;

  Plan PlanOf(long start, long end) {
    Plan plan;
    table().GetDCInfoList({start, end, kTag}, &plan);
    return plan;
  }

  /// One line a container: "70 of 100 bytes: [0 +100) from 0, [200 +5) from 3 behind".
  static std::vector<std::string> Shown(const Plan& plan) {
    std::vector<std::string> lines;
    for (const DCInfo& info : plan) {
      std::ostringstream line;
      line << info.dcid << " of " << info.totalBytes << " bytes:";
      const char* separator = " ";
      for (const auto& extent : info.extents) {
        line << separator << '[' << extent.sOff << " +" << extent.length << ") from "
             << extent.objOff << (extent.inRange ? "" : " behind");
        separator = ", ";
      }
      lines.push_back(line.str());
    }
    return lines;
  }
  std::vector<std::string> ShownPlan(long start, long end) { return Shown(PlanOf(start, end)); }
  using ReadPathTest::Shown;

  /// What the table keeps for look-ups.
  std::vector<Part> Kept() {
    std::vector<Part> parts;
    for (const ExtLMDB& ext : peer().prefetchExts()) {
      parts.push_back(PartOf(ext));
    }
    return parts;
  }

  const SavedSpan span_;
};

}  // namespace zefs::test
