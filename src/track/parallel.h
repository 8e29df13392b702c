// Two pieces of independent work on the two cores the program may have.
#pragma once

#include <functional>
#include <system_error>
#include <thread>

// Runs `first` here and `second` on a thread of its own, or after `first`
// when no thread can be started; both have finished when this returns.
// Neither may touch what the other writes.
template <typename First, typename Second>
void RunInParallel(First&& first, Second&& second) {
  std::thread helper;
  try {
    helper = std::thread(std::ref(second));
  } catch (const std::system_error&) {
    first();
    second();
    return;
  }
  first();
  helper.join();
}
