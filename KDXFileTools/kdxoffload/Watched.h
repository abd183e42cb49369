#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Process.h"

namespace kdxoffload {

// Does the work in a thread of its own, and returns its result. `work` gets a function that it must call as it goes on. Once
// it has not done so for `stallSeconds`, there is no result: a file system may hold a call for ever. The thread then keeps
// waiting by itself, so the work owns all that it uses. `meanwhile` is called on the calling thread, many times a second.
template <typename Result, typename Clock = std::chrono::steady_clock>
std::optional<Result> watched(double stallSeconds, std::function<Result(const std::function<void()>& goesOn)> work,
                              const std::function<void()>& meanwhile) {
  constexpr std::chrono::milliseconds betweenLooks{20};
  const auto steps = std::make_shared<std::atomic<uint64_t>>(0);
  std::packaged_task<Result()> task([work = std::move(work), steps] { return work([steps] { ++*steps; }); });
  std::future<Result> result = task.get_future();
  try {
    std::thread(std::move(task)).detach();
  } catch (const std::system_error&) {
    platform::endProcessForLackOf("a thread");
  }
  uint64_t lastSteps = 0;
  typename Clock::time_point lastMove = Clock::now();
  while (result.wait_for(betweenLooks) != std::future_status::ready) {
    meanwhile();
    const typename Clock::time_point now = Clock::now();
    if (const uint64_t count = *steps; count != lastSteps) {
      lastSteps = count;
      lastMove = now;
    }
    if (now - lastMove > std::chrono::duration<double>(stallSeconds)) return std::nullopt;
  }
  return result.get();
}

}  // namespace kdxoffload
