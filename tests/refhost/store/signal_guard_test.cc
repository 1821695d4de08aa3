#include "refhost/cli/signal_guard.h"

#include <csignal>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(SignalGuard, NotesEveryRequestToEnd) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const SignalGuard guard;
    EXPECT_FALSE(SignalGuard::Interrupted());
    std::raise(signal);
    EXPECT_TRUE(SignalGuard::Interrupted()) << signal;
  }
}

TEST(SignalGuard, WhatWasIgnoredStaysIgnored) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const auto before = std::signal(signal, SIG_IGN);
    {
      const SignalGuard guard;
      std::raise(signal);
      EXPECT_FALSE(SignalGuard::Interrupted()) << signal;
    }
    EXPECT_EQ(SIG_IGN, std::signal(signal, before)) << signal;
  }
}

TEST(SignalGuard, PutsBackWhatWasThere) {
  { const SignalGuard guard; }
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) {
    EXPECT_EQ(SIG_DFL, std::signal(signal, SIG_DFL)) << signal;
  }
}

}  // namespace
}  // namespace zefs::refhost
