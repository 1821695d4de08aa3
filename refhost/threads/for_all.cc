#include "refhost/threads/for_all.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

#include "refhost/threads/job_group.h"

namespace zefs::refhost {

void ForAll(std::size_t count, std::size_t threads, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  JobGroup group;
  const auto take = [&] {
    std::exception_ptr failure;
    try {
      for (std::size_t i = next++; i < count; i = next++) {
        work(i);
      }
    } catch (...) {
      next = count;
      failure = std::current_exception();
    }
    group.End(failure);
  };
  std::vector<std::thread> helpers;
  group.Begin();
  try {
    while (helpers.size() + 1 < std::min(count, threads)) {
      group.Begin();
      helpers.emplace_back(take);
    }
  } catch (const std::system_error&) {  // those that there are do it
    group.End();
  }
  take();
  for (std::thread& helper : helpers) {
    helper.join();
  }
  group.ThrowFailure();
}

}  // namespace zefs::refhost
