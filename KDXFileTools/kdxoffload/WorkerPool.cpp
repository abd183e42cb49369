#include "KDXFileTools/kdxoffload/WorkerPool.h"

#include <algorithm>
#include <asio.hpp>
#include <cerrno>
#include <chrono>
#include <string_view>

#include "KDXFileTools/kdxoffload/Worker.h"
#include "KDXFileTools/kdxoffload/WorkerProtocol.h"

namespace kdxoffload {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds betweenLooks{1};
// A process that is in the middle of a call of the system can't be ended: after so long nobody waits for it any more.
constexpr double patienceWithFlushes = 10;   // times that of other work
constexpr std::size_t longestErrors = 4096;  // bytes

// Hands all that the pipe holds at the moment to `take`. False when nothing will come any more.
template <typename Take>
bool drain(int descriptor, Take take) {
  for (;;) {
    const std::string bytes = platform::readSome(descriptor);
    if (bytes.empty()) return errno == EAGAIN;
    take(bytes);
  }
}

}  // namespace

// One process. Its callbacks hold it, so that it outlives its place in the pool.
class WorkerPool::Worker : public std::enable_shared_from_this<WorkerPool::Worker> {
 public:
  Worker(asio::io_context& context, platform::ChildProcess process, State& pool)
      : _process(std::move(process)),
        _orders(context, _process.orders.release()),
        _results(context, _process.results.release()),
        _output(context, _process.output.release()),
        _errors(context, _process.errors.release()),
        _ended(context, _process.ended.release()),
        _pool(&pool) {}

  void begin(const WorkerSetup& setup) {
    send(setup);
    waitForResults();
    waitForOutput();
    waitForErrors();
    waitForEnd();
  }

  void give(const JobOrder& order, Done done) {
    _number = order.number;
    _isCopying = order.task == Task::copy || order.task == Task::sequence || order.task == Task::compare;
    _done = std::move(done);
    _report = {};
    _report.output.startJob(order.items.size(), order.destinations.size());
    _lastActivity = Clock::now();
    _activity.reset();
    _wasStalled = false;
    ++_taken;
    send(order);
  }

  [[nodiscard]] bool isBusy() const { return static_cast<bool>(_done); }
  [[nodiscard]] bool isCopying() const { return isBusy() && _isCopying; }
  // A flush counts as no input or output, and writes what other programs left too. What neither copies nor compares does
  // hardly anything else.
  [[nodiscard]] bool isFlushing() const { return !_isCopying || _report.output.phase() == JobPhase::flushing; }
  [[nodiscard]] bool isIdle() const { return !isBusy() && _orders.is_open() && !_hasEnded && !_wasStalled; }
  [[nodiscard]] std::size_t taken() const { return _taken; }
  [[nodiscard]] bool hasEnded() const { return _hasEnded; }

  void terminate() { _process.terminate(); }
  // The process ends by itself when it finds no more orders.
  void closeOrders() {
    std::error_code ignored;
    _orders.close(ignored);
  }
  // The pool is gone, or has given it up: no callback does anything any more.
  void abandon() {
    _pool = nullptr;
    _process.kill();
    std::error_code ignored;
    for (asio::posix::stream_descriptor* end : {&_orders, &_results, &_output, &_errors, &_ended}) end->close(ignored);
  }

  void look(double stallSeconds);

 private:
  void send(const WorkerMessage& message) {
    _unsent.push_back(encodeMessage(message));
    if (_unsent.size() == 1) writeNext();
  }

  void writeNext() {
    asio::async_write(_orders, asio::buffer(_unsent.front()),
                      [self = shared_from_this()](std::error_code error, size_t) {
                        self->_unsent.erase(self->_unsent.begin());
                        // A process that takes no orders has ended, which is noticed elsewhere.
                        if (!error && !self->_unsent.empty()) self->writeNext();
                      });
  }

  void waitForResults() {
    _results.async_wait(asio::posix::stream_descriptor::wait_read, [self = shared_from_this()](std::error_code error) {
      if (error || self->_pool == nullptr || !self->takeResults()) return;
      self->waitForResults();
    });
  }

  void waitForOutput() {
    _output.async_wait(asio::posix::stream_descriptor::wait_read, [self = shared_from_this()](std::error_code error) {
      if (error || self->_pool == nullptr || !self->takeOutput()) return;
      self->waitForOutput();
    });
  }

  void waitForErrors() {
    _errors.async_wait(asio::posix::stream_descriptor::wait_read, [self = shared_from_this()](std::error_code error) {
      if (error || self->_pool == nullptr || !self->takeErrors()) return;
      self->waitForErrors();
    });
  }

  void waitForEnd() {
    _ended.async_wait(asio::posix::stream_descriptor::wait_read, [self = shared_from_this()](std::error_code error) {
      if (!error && self->_pool != nullptr) self->noticeEnd();
    });
  }

  bool takeResults() {
    const bool goesOn = drain(_results.native_handle(), [this](const std::string& bytes) { _reader.add(bytes); });
    while (std::optional<WorkerMessage> message = _reader.next()) {
      auto* const result = std::get_if<JobResult>(&*message);
      if (result == nullptr || !isBusy() || result->number != _number) continue;
      // What the job printed was written before its answer.
      takeOutput();
      takeErrors();
      _report.result = std::move(*result);
      finish();
    }
    if (_reader.isBroken()) _process.kill();
    return goesOn;
  }

  bool takeOutput();

  bool takeErrors() {
    return drain(_errors.native_handle(), [this](const std::string& bytes) {
      _report.errors += bytes;
      if (_report.errors.size() > longestErrors) _report.errors.erase(0, _report.errors.size() - longestErrors);
    });
  }

  void noticeEnd() {
    const std::optional<int> status = _process.exitStatus();
    if (!status) {
      waitForEnd();
      return;
    }
    _hasEnded = true;
    // An answer may be on its way although the process has ended since.
    takeResults();
    takeOutput();
    takeErrors();
    if (isBusy()) endWithStatus(*status);
    forget();
  }

  void endWithStatus(int status) {
    _report.result = {.number = _number};
    // Without an answer, 0 proves nothing.
    _report.result.status = _wasStalled ? WorkStatus::stalled : status == 0 ? WorkStatus::systemError : status;
    _report.endedItsProcess = true;
    finish();
  }

  void finish();
  void forget();

  platform::ChildProcess _process;
  asio::posix::stream_descriptor _orders;
  asio::posix::stream_descriptor _results;
  asio::posix::stream_descriptor _output;
  asio::posix::stream_descriptor _errors;
  asio::posix::stream_descriptor _ended;
  State* _pool;
  std::vector<std::string> _unsent;
  MessageReader _reader;
  std::size_t _taken = 0;
  bool _hasEnded = false;

  // Of the order under way.
  uint64_t _number = 0;
  bool _isCopying = false;
  Done _done;  // empty while there is none
  JobReport _report;
  std::optional<uint64_t> _activity;
  Clock::time_point _lastActivity;
  bool _wasStalled = false;
};

struct WorkerPool::State : std::enable_shared_from_this<WorkerPool::State> {
  State(asio::io_context& ofContext, Settings its, Moved called)
      : context(ofContext), settings(std::move(its)), moved(std::move(called)), clock(ofContext) {}

  asio::io_context& context;
  Settings settings;
  Moved moved;
  asio::steady_timer clock;
  std::vector<std::shared_ptr<Worker>> workers;
  std::optional<Clock::time_point> closed{};  // when

  void watch() {
    clock.expires_after(betweenLooks);
    clock.async_wait([self = shared_from_this()](std::error_code error) {
      if (error) return;
      const std::vector<std::shared_ptr<Worker>> all = self->workers;
      for (const std::shared_ptr<Worker>& worker : all) worker->look(self->settings.stallSeconds);
      if (!self->workers.empty()) self->watch();
    });
  }

  void remove(const Worker& gone) {
    std::erase_if(workers, [&gone](const std::shared_ptr<Worker>& worker) { return worker.get() == &gone; });
    if (workers.empty()) clock.cancel();
  }

  std::shared_ptr<Worker> idleWorker(platform::ErrorPlace error) {
    const auto idle =
        std::ranges::find_if(workers, [](const std::shared_ptr<Worker>& worker) { return worker->isIdle(); });
    if (idle != workers.end()) return *idle;
    std::optional<platform::ChildProcess> process =
        platform::ChildProcess::start(settings.program, {"kdxoffload", workerArgument}, settings.inherited, error);
    if (!process) return nullptr;
    workers.push_back(std::make_shared<Worker>(context, std::move(*process), *this));
    workers.back()->begin(settings.setup);
    if (workers.size() == 1) watch();
    return workers.back();
  }

  // Once a worker is free again.
  void retire(Worker& worker) const {
    if (closed || worker.taken() >= settings.ordersOfAWorker) worker.closeOrders();
  }
};

bool WorkerPool::Worker::takeOutput() {
  bool hasNews = false;
  const bool goesOn = drain(_output.native_handle(), [&](const std::string& bytes) {
    _report.output.add(bytes);
    hasNews = true;
  });
  if (hasNews && isBusy()) _pool->moved(_number, _report.output);
  return goesOn;
}

void WorkerPool::Worker::finish() {
  const Done done = std::exchange(_done, nullptr);
  _pool->retire(*this);
  done(std::exchange(_report, {}));
}

void WorkerPool::Worker::forget() {
  State* const pool = _pool;
  const std::shared_ptr<Worker> self = shared_from_this();
  abandon();
  pool->remove(*this);
}

void WorkerPool::Worker::look(double stallSeconds) {
  if (_hasEnded) return;
  const Clock::time_point now = Clock::now();
  const std::chrono::duration<double> untilGivenUp(_pool->settings.secondsUntilGivenUp);
  if (!isBusy()) {
    // One that does not go when there is nothing left to do.
    if (_pool->closed && now - *_pool->closed > untilGivenUp) forget();
    return;
  }
  const std::optional<uint64_t> activity = _process.activity();
  if (!activity || activity != _activity) {
    _activity = activity;
    if (!_wasStalled) _lastActivity = now;
  }
  const std::chrono::duration<double> patience(isFlushing() ? stallSeconds * patienceWithFlushes : stallSeconds);
  const std::chrono::duration<double> idle = now - _lastActivity;
  if (idle < patience) return;
  if (_wasStalled && idle - patience > untilGivenUp) {
    // It takes no more orders: the next one comes while this one's end is told.
    _hasEnded = true;
    endWithStatus(WorkStatus::stalled);
    forget();
    return;
  }
  _wasStalled = true;
  _process.kill();
}

WorkerPool::WorkerPool(asio::io_context& context, Settings settings, Moved moved)
    : _state(std::make_shared<State>(context, std::move(settings), std::move(moved))) {}

// NOLINTNEXTLINE(bugprone-exception-escape): what could throw here has no memory left, and ends the process
WorkerPool::~WorkerPool() {
  _state->clock.cancel();
  for (const std::shared_ptr<Worker>& worker : _state->workers) worker->abandon();
  _state->workers.clear();
}

void WorkerPool::give(const JobOrder& order, Done done) {
  std::optional<platform::Error> error;
  const std::shared_ptr<Worker> worker = _state->idleWorker(&error);
  if (worker) {
    worker->give(order, std::move(done));
    return;
  }
  JobReport report;
  report.result = {.number = order.number, .status = WorkStatus::systemError};
  report.result.reason = error ? error->description.value_or("") : "";
  asio::post(_state->context, [report, done = std::move(done)] { done(report); });
}

std::size_t WorkerPool::running() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(_state->workers, [](const std::shared_ptr<Worker>& worker) { return worker->isBusy(); }));
}

void WorkerPool::stop() {
  for (const std::shared_ptr<Worker>& worker : _state->workers) {
    if (worker->isCopying()) worker->terminate();
  }
}

void WorkerPool::close() {
  _state->closed = Clock::now();
  for (const std::shared_ptr<Worker>& worker : _state->workers) worker->closeOrders();
}

}  // namespace kdxoffload
