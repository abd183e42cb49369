#include "platform/WorkerThreads.h"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Mutex.h"
#include "platform/Process.h"

namespace platform {

struct WorkerThreads::State {
  explicit State(std::string name) : label(std::move(name)) {}

  const std::string label;
  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
  std::once_flag start;
  std::atomic<bool> hasStarted = false;
  Mutex mutex;
  std::vector<std::thread> threads KDX_GUARDED_BY(mutex);
};

namespace {

thread_local const void* stateOfThisThread = nullptr;

}  // namespace

WorkerThreads::WorkerThreads(std::string label) : _state(std::make_shared<State>(std::move(label))) {}

WorkerThreads::~WorkerThreads() {
  _state->work.reset();
  // The thread that posted the last task may still be adding the thread that ran it.
  MutexLock lock(_state->mutex);
  std::vector<std::thread> threads = std::move(_state->threads);
  lock.unlock();
  for (std::thread& thread : threads) isCurrentThread() ? thread.detach() : thread.join();
}

void WorkerThreads::addThread() {
  addThread(_state);
}

void WorkerThreads::addThread(const std::shared_ptr<State>& state) {
  const MutexLock lock(state->mutex);
  try {
    // The thread shares the state, which therefore outlives a queue that is destroyed by its own last task.
    state->threads.emplace_back([state] {
      stateOfThisThread = state.get();
      ::pthread_setname_np(::pthread_self(), state->label.substr(0, 15).c_str());
      state->context.run();
    });
  } catch (const std::system_error& error) {
    endProcessForLackOf("a thread for the queue " + state->label + " (" + error.what() + ")");
  }
}

void WorkerThreads::post(Task task) {
  // The task may run, and drop the last reference to the queue, before this call has finished with the context.
  const std::shared_ptr<State> state = _state;
  asio::post(state->context, std::move(task));
}

void WorkerThreads::postAndStart(Task task, std::size_t threads) {
  const std::shared_ptr<State> state = _state;
  asio::post(state->context, std::move(task));
  std::call_once(state->start, [&state, threads] {
    for (std::size_t thread = 0; thread < threads; ++thread) addThread(state);
    state->hasStarted = true;
  });
}

bool WorkerThreads::hasStarted() const {
  return _state->hasStarted;
}

bool WorkerThreads::isCurrentThread() const {
  return stateOfThisThread == _state.get();
}

}  // namespace platform
