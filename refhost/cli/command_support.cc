#include "refhost/cli/command_support.h"

#include <cerrno>
#include <exception>
#include <new>
#include <ostream>
#include <stdexcept>

#include <sys/stat.h>

#include "refhost/cli/exit_status.h"
#include "refhost/cli/printable.h"
#include "refhost/cli/progress.h"
#include "refhost/cli/signal_guard.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

void WithProgress(const std::function<void(const Progress&)>& body) {
  ProgressBar bar;
  const SignalGuard guard;
  body([&bar](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    if (SignalGuard::Interrupted()) {
      throw std::runtime_error("interrupted");
    }
    bar.Update(phase, done, total);
  });
}

int RunCommand(const char* command, std::ostream& err, const std::function<int()>& body) {
  const auto tell = [&](const char* text) {
    err << "zefs-host " << command << ": " << Printable(text) << '\n';
  };
  try {
    return body();
  } catch (const DamageError& damage) {
    tell(damage.what());
    return kExitDifference;
  } catch (const std::bad_alloc&) {
    tell("out of memory");
  } catch (const std::exception& error) {
    tell(error.what());
  }
  return kExitCannotRun;
}

void TellSkipped(const std::vector<Skipped>& skipped, std::ostream& err) {
  for (const Skipped& one : skipped) {
    err << "skipped " << Printable(one.path) << ": " << one.reason << '\n';
  }
}

nlohmann::ordered_json SkippedAsJson(const std::vector<Skipped>& skipped) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Skipped& one : skipped) {
    list.push_back({{"path", one.path}, {"reason", one.reason}});
  }
  return list;
}

std::string PathProblem(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR)) {
    return {};
  }
  return "'" + path + "' does not exist: " + ReasonOf(errno);
}

double DedupRatio(std::uint64_t given, std::uint64_t kept) {
  return kept == 0 ? 1.0 : static_cast<double>(given) / static_cast<double>(kept);
}

}  // namespace zefs::refhost
