#include "refhost/cli/signal_guard.h"

#include <atomic>

namespace zefs::refhost {

namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

extern "C" void NoteInterrupt(int signal) {
  interrupted = true;
  std::signal(signal, SIG_DFL);
}

bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

SignalGuard::SignalGuard() {
  interrupted = false;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    if (!IsIgnored(signal)) {
      Replace(signal, NoteInterrupt);
    }
  }
  Replace(SIGXFSZ, SIG_IGN);
}

SignalGuard::~SignalGuard() {
  for (const auto& [signal, handler] : before_) {
    std::signal(signal, handler);
  }
}

bool SignalGuard::Interrupted() {
  return interrupted;
}

void SignalGuard::Replace(int signal, Handler handler) {
  before_.emplace_back(signal, std::signal(signal, handler));
}

}  // namespace zefs::refhost
