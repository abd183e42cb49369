#include "KDXFileTools/kdxoffload/Run.h"

#include <algorithm>
#include <asio.hpp>
#include <chrono>
#include <deque>
#include <map>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxoffload/Batch.h"
#include "KDXFileTools/kdxoffload/FreeRoom.h"
#include "KDXFileTools/kdxoffload/Orders.h"
#include "KDXFileTools/kdxoffload/ProgressMeter.h"
#include "KDXFileTools/kdxoffload/Verdict.h"
#include "KDXFileTools/kdxoffload/Watched.h"
#include "KDXFileTools/kdxoffload/WorkerPool.h"
#include "platform/Folder.h"

namespace kdxoffload {

namespace {

using Clock = std::chrono::steady_clock;
using BatchPointer = std::shared_ptr<Batch>;

constexpr std::chrono::milliseconds betweenStates{250};
// An interrupted run is known to have been at work until then, and so much longer at most.
constexpr double secondsBetweenSigns = 30;
constexpr double longestAnswer = 30;  // seconds
constexpr std::size_t smallJobsAtOnce = 16;
constexpr std::size_t bigJobsAtOnce = 1;
// While one batch is being synced the next one goes on.
constexpr std::size_t openSmallBatches = 2;

namespace JobStatus = ::ExitStatus;  // of the first program

int64_t nanosecondsSince1970() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

}  // namespace

struct Run::State : std::enable_shared_from_this<Run::State> {
  struct Running {
    Job job;
    BatchPointer batch;
    uint64_t bytes = 0;  // of its files
    JobPhase phase = JobPhase::copying;
    uint64_t bytesInPhase = 0;
  };

  State(asio::io_context& ofContext, RunSettings its, const Listing& ofCard, const Plan& itsPlan,
        Catalogue& itsCatalogue, Listener& itsListener)
      : context(ofContext),
        settings(std::move(its)),
        card(ofCard),
        plan(itsPlan),
        catalogue(itsCatalogue),
        listener(itsListener),
        results(ofCard.entries.size(), settings.setup.destinations.size()),
        isReported(ofCard.entries.size()),
        clock(ofContext),
        freeRoom(settings.setup.destinations) {}

  [[nodiscard]] double now() const { return std::chrono::duration<double>(Clock::now() - started).count(); }
  [[nodiscard]] DestinationSet everywhere() const { return DestinationSet::all(settings.setup.destinations.size()); }
  [[nodiscard]] bool isFile(EntryIndex entry) const {
    return card.entries[entry].facts.kind == platform::ItemKind::file;
  }
  void post(const Event& event) { listener.take(event); }

  // The stages, each of which starts the next one.
  void begin();
  void makeFolders();
  void copyFiles();
  void tryAgain();
  void startAgain();
  void makeLinks();
  std::deque<EntriesOrder> cleaningOrders();
  void clean();
  void keepFolders();
  void end();
  using TakeReport = std::function<void(const EntriesOrder&, const JobReport&)>;
  void doInTurn(std::deque<EntriesOrder> orders, TakeReport takeReport, std::function<void()> next);

  // Files.
  void startMore();
  bool startOne();
  [[nodiscard]] bool mayStart(const Batch& batch) const;
  void dropWaiting();
  void open(const Batch& batch);
  void startJob(const BatchPointer& batch);
  void endJob(const JobReport& report);
  void take(uint64_t number, const WorkerOutput& output);
  void closeIfOver(const BatchPointer& batch);
  void settle(Batch& batch, const JobResult& synced);
  void prove(const Batch::Finished& finished, std::vector<FileOfRecord>& records);
  void takeDigest(EntryIndex entry, const FileDigest& digest);
  void agreeAt(EntryIndex entry, std::size_t destination);
  bool fail(const Job& job, const JobReport& report, bool isRetry);
  void forgetWhatIsNotOurs(const Job& job, int status);
  [[nodiscard]] std::vector<Job> asItStands(const Job& job);
  [[nodiscard]] DestinationSet takenNames(const Job& job);
  [[nodiscard]] std::optional<bool> isNameTaken(std::size_t position, EntryIndex file) const;

  // What is kept of them.
  void addRecords(const Job& job, std::vector<FileOfRecord>& records) const;
  void addFailures(const Job& job, const JobResult& result);
  void addFailure(EntryIndex entry, int status, const std::string& detail, DestinationSet destinations);
  void takeItems(const EntriesOrder& order, const JobReport& report);
  void remark(std::size_t destination, const std::string& text);

  // What is told.
  void postPlan();
  void postPlannedOutcomes();
  void postFile(EntryIndex entry, double jobSeconds, std::optional<uint64_t> sequenceJob = std::nullopt);
  void postRest();
  void tellState(bool isAsked);
  void watch();

  asio::io_context& context;
  RunSettings settings;
  const Listing& card;
  const Plan& plan;
  Catalogue& catalogue;
  Listener& listener;
  Results results;
  std::vector<bool> isReported;  // the file has had its event
  asio::steady_timer clock;
  std::unique_ptr<WorkerPool> pool;
  const FreeRoom freeRoom;
  std::function<void()> ended;
  const Clock::time_point started = Clock::now();
  ProgressMeter meter;
  uint64_t lastNumber = 0;
  int signal = 0;  // that stops the run
  enum class Stage { before, files, between, retries, after, over } stage = Stage::before;

  std::deque<BatchPointer> waiting;  // not all of their jobs have started
  std::size_t openBatches = 0;       // begun and not settled
  std::map<uint64_t, Running> running;
  struct FailedOnce {
    Job job;
    JobResult result;
  };
  std::vector<FailedOnce> failedOnce;
  std::map<EntryIndex, JobResult> firstFailures;  // of files that are tried once more
  std::map<EntryIndex, DestinationSet>
      differedOnce;  // files that a comparison found different, and where they still are
  struct LeftBehind {
    std::string path;  // of a temporary file of a job that failed
    DestinationSet destinations;
  };
  std::vector<LeftBehind> leftBehind;
  DestinationSet silent{};  // destinations that do not answer any more
  double nextSign = 0;      // see secondsBetweenSigns
  bool hasWorked = false;   // something was to be done
  uint64_t bytesProved = 0;
  uint64_t filesProved = 0;
  uint64_t files = 0;
  uint64_t bytes = 0;
};

Run::Run(asio::io_context& context, RunSettings settings, const Listing& card, const Plan& plan, Catalogue& catalogue,
         Listener& listener)
    : _state(std::make_shared<State>(context, std::move(settings), card, plan, catalogue, listener)) {}

// NOLINTNEXTLINE(bugprone-exception-escape): what could throw here has no memory left, and ends the process
Run::~Run() {
  _state->clock.cancel();
  _state->pool.reset();
}

void Run::start(std::function<void()> ended) {
  _state->ended = std::move(ended);
  _state->begin();
}

void Run::stop(int signal) {
  if (_state->signal != 0) return;
  _state->signal = signal;
  _state->post(Stopping{.signal = signal});
  // Not from here: whoever is told of an event may be the one who stops.
  asio::post(_state->context, [state = _state] {
    if (state->pool) state->pool->stop();
    state->startMore();
  });
}

void Run::tellState() {
  _state->tellState(true);
}

const Results& Run::results() const {
  return _state->results;
}

void Run::State::begin() {
  WorkerPool::Settings poolSettings{.setup = settings.setup,
                                    .program = settings.program,
                                    .stallSeconds = settings.stallSeconds,
                                    .inherited = settings.inherited};
  pool = std::make_unique<WorkerPool>(context, std::move(poolSettings),
                                      [this](uint64_t number, const WorkerOutput& output) { take(number, output); });
  postPlan();
  postPlannedOutcomes();
  watch();
  makeFolders();
}

// Does the orders one after the other, and goes on with `next`.
void Run::State::doInTurn(std::deque<EntriesOrder> orders,
                          std::function<void(const EntriesOrder&, const JobReport&)> takeReport,
                          std::function<void()> next) {
  if (orders.empty()) {
    next();
    return;
  }
  hasWorked = true;
  EntriesOrder first = std::move(orders.front());
  orders.pop_front();
  first.order.number = ++lastNumber;
  const JobOrder order = first.order;
  pool->give(order, [self = shared_from_this(), first = std::move(first), orders = std::move(orders),
                     takeReport = std::move(takeReport), next = std::move(next)](const JobReport& report) mutable {
    takeReport(first, report);
    self->doInTurn(std::move(orders), std::move(takeReport), std::move(next));
  });
}

void Run::State::makeFolders() {
  std::vector<DestinationSet> where = plan.folders;
  // One that is there already is made too: the worker opens it.
  for (EntryIndex index = 0; index < plan.closed.size(); ++index) where[index] = where[index].with(plan.closed[index]);
  doInTurn(
      oneForEachDestination(folderOrders(where, card)),
      [this](const EntriesOrder& order, const JobReport& report) { takeItems(order, report); },
      [this] { copyFiles(); });
}

void Run::State::copyFiles() {
  stage = Stage::files;
  for (Batch& batch : batchesOf(plan, card)) waiting.push_back(std::make_shared<Batch>(std::move(batch)));
  startMore();
}

void Run::State::tryAgain() {
  stage = Stage::between;
  // What failed for want of room leaves room for the second try.
  std::deque<EntriesOrder> orders;
  if (!failedOnce.empty()) orders = cleaningOrders();
  doInTurn(
      std::move(orders), [](const EntriesOrder&, const JobReport&) {}, [this] { startAgain(); });
}

void Run::State::startAgain() {
  stage = Stage::retries;
  std::vector<Job> jobs;
  for (const FailedOnce& failed : std::exchange(failedOnce, {})) {
    jobs.push_back(failed.job);
    for (const EntryIndex file : plan.filesOf(failed.job)) firstFailures.emplace(file, failed.result);
  }
  for (const Batch& batch : retriesOf(jobs)) {
    for (const Job& job : asItStands(batch.jobs.front())) {
      waiting.push_back(std::make_shared<Batch>(Batch{.jobs = {job}, .isRetry = true}));
    }
  }
  startMore();
}

void Run::State::makeLinks() {
  stage = Stage::after;
  std::deque<EntriesOrder> orders = oneForEachDestination(linkOrders(plan.links, card));
  if (signal != 0) orders.clear();
  doInTurn(
      std::move(orders), [this](const EntriesOrder& order, const JobReport& report) { takeItems(order, report); },
      [this] { clean(); });
}

// Removes what jobs that failed have left, and the folder of aliases.
std::deque<EntriesOrder> Run::State::cleaningOrders() {
  std::deque<EntriesOrder> orders;
  for (std::size_t position = 0; position < settings.setup.destinations.size(); ++position) {
    EntriesOrder& order = orders.emplace_back();
    order.order = {.task = Task::clean, .destinations = DestinationSet::only(position)};
    for (const LeftBehind& left : leftBehind) {
      if (left.destinations.contains(position)) order.order.items.push_back({.name = left.path});
    }
  }
  leftBehind.clear();
  return orders;
}

void Run::State::clean() {
  std::deque<EntriesOrder> orders;
  if (hasWorked || settings.hasLeftovers) orders = cleaningOrders();
  // What could not be removed is no harm: the next run replaces it.
  doInTurn(
      std::move(orders), [](const EntriesOrder&, const JobReport&) {}, [this] { keepFolders(); });
}

void Run::State::keepFolders() {
  std::vector<DestinationSet> where = settings.foldersToKeep;
  where.resize(card.entries.size());
  for (EntryIndex index = 0; index < where.size(); ++index) {
    const bool isFolder = card.entries[index].facts.kind == platform::ItemKind::folder;
    // Whatever was done in a folder may have changed its time.
    if (hasWorked && isFolder) where[index] = results.provedAt(index);
  }
  std::deque<EntriesOrder> orders = oneForEachDestination(keepingOrders(where, card));
  if (signal != 0) orders.clear();
  doInTurn(
      std::move(orders), [this](const EntriesOrder& order, const JobReport& report) { takeItems(order, report); },
      [this] { end(); });
}

void Run::State::end() {
  postRest();
  if (filesProved == files) meter.finish();
  tellState(false);
  stage = Stage::over;
  clock.cancel();
  pool->close();
  ended();
}

// Starts as many jobs as there is room for, and the next stage when there are none left.
void Run::State::startMore() {
  if (stage != Stage::files && stage != Stage::retries) return;
  if (signal != 0) dropWaiting();
  while (startOne()) {
  }
  if (!waiting.empty() || openBatches != 0) return;
  if (stage == Stage::files && signal == 0) {
    tryAgain();
  } else {
    makeLinks();
  }
}

// What has not started never will: what comes to stand under its name is somebody else's.
void Run::State::dropWaiting() {
  std::vector<FileOfRecord> never;
  for (const BatchPointer& batch : std::exchange(waiting, {})) {
    const bool isOpen = batch->started != 0;
    for (std::size_t job = batch->started; isOpen && job < batch->jobs.size(); ++job) {
      // What a job was to replace stands there already, and stays known as what it is.
      const Job& dropped = batch->jobs[job];
      if (dropped.kind == JobKind::copy && !dropped.replaces) addRecords(dropped, never);
    }
    batch->jobs.resize(batch->started);
    if (isOpen) closeIfOver(batch);
  }
  catalogue.forget(never);
}

bool Run::State::mayStart(const Batch& batch) const {
  const std::size_t atOnce = settings.jobs.value_or(batch.isSmall ? smallJobsAtOnce : bigJobsAtOnce);
  const bool mayOpen = batch.started != 0 || !batch.isSmall || openBatches < openSmallBatches;
  return running.size() < atOnce && mayOpen;
}

bool Run::State::startOne() {
  if (waiting.empty() || !mayStart(*waiting.front())) return false;
  const BatchPointer batch = waiting.front();
  if (batch->isRetry && silent.with(batch->jobs.front().destinations) == silent) {
    // One second try of each of thousands of files would take days there.
    addFailures(batch->jobs.front(), {.status = WorkStatus::stalled});
    waiting.pop_front();
    return true;
  }
  if (batch->started == 0) open(*batch);
  startJob(batch);
  if (!batch->hasMore()) waiting.pop_front();
  return true;
}

// What is about to be written is recorded first: whatever ends this program, the next run knows what is ours.
void Run::State::open(const Batch& batch) {
  hasWorked = true;
  ++openBatches;
  std::vector<FileOfRecord> records;
  for (const Job& job : batch.jobs) {
    if (job.kind == JobKind::copy) addRecords(job, records);
  }
  for (FileOfRecord& record : records) record.record.state = FileRecord::State::begun;
  catalogue.begin(records);
}

void Run::State::startJob(const BatchPointer& batch) {
  Running job{.job = batch->jobs[batch->started++], .batch = batch};
  JobOrder order = orderOf(job.job, plan, card);
  order.number = ++lastNumber;
  // Without a catalogue the next run could not tell a file that a loss of power left hollow from somebody else's.
  order.flushes = !batch->isSmall || catalogue.problem();
  for (const OrderedItem& item : order.items) job.bytes += item.size;
  const bool copies = job.job.kind == JobKind::copy;
  meter.startJob(order.number, job.bytes, copies, settings.setup.readBack || !copies);
  post(JobStarted{.job = order.number,
                  .path = shownPathOf(job.job, plan, card),
                  .frames = job.job.count,
                  .bytes = job.bytes,
                  .seconds = now()});
  running.emplace(order.number, std::move(job));
  pool->give(order, [self = shared_from_this()](const JobReport& report) { self->endJob(report); });
}

void Run::State::take(uint64_t number, const WorkerOutput& output) {
  const auto found = running.find(number);
  if (found == running.end()) return;
  Running& job = found->second;
  if (output.phase() != job.phase) {
    job.phase = output.phase();
    job.bytesInPhase = 0;
    post(JobPhaseChanged{.job = number, .phase = job.phase, .seconds = now()});
  }
  meter.move(number, job.phase, output.bytesInPhase());
  if (output.bytesInPhase() <= job.bytesInPhase) return;
  job.bytesInPhase = output.bytesInPhase();
  post(JobProgressed{.job = number, .phase = job.phase, .bytes = job.bytesInPhase, .seconds = now()});
}

void Run::State::endJob(const JobReport& report) {
  const auto found = running.find(report.result.number);
  const Running job = std::move(found->second);
  running.erase(found);
  const bool isDone = report.result.status == 0;
  meter.endJob(report.result.number, isDone);
  const bool goesOn = !isDone && fail(job.job, report, job.batch->isRetry);
  post(JobEnded{.job = report.result.number,
                .status = report.result.status,
                .willBeTriedAgain = goesOn,
                .secondsCopying = report.output.secondsCopying(),
                .secondsReadingBack = report.output.secondsReadingBack(),
                .seconds = now()});
  ++job.batch->ended;
  if (isDone) {
    job.batch->finished.push_back({.job = job.job, .report = report});
  }
  closeIfOver(job.batch);
  startMore();
}

void Run::State::closeIfOver(const BatchPointer& batch) {
  if (!batch->isOver()) return;
  if (!batch->isSmall || batch->finished.empty()) {
    settle(*batch, {});
    return;
  }
  const JobOrder order{.number = ++lastNumber, .task = Task::sync, .destinations = batch->destinations()};
  pool->give(order, [self = shared_from_this(), batch](const JobReport& report) {
    self->settle(*batch, report.result);
    self->startMore();
  });
}

// Everything of the batch is permanent, or the sync has failed.
void Run::State::settle(Batch& batch, const JobResult& synced) {
  --openBatches;
  std::vector<FileOfRecord> proved;
  for (const Batch::Finished& finished : batch.finished) {
    if (synced.status == 0) {
      prove(finished, proved);
      continue;
    }
    JobReport report = finished.report;
    report.result = synced;
    fail(finished.job, report, batch.isRetry);
  }
  if (!proved.empty()) catalogue.prove(proved);
  if (synced.status != 0) return;
  for (const Batch::Finished& finished : batch.finished) {
    const double seconds = finished.report.output.secondsCopying() + finished.report.output.secondsReadingBack();
    const bool isSequence = finished.job.sequence != Job::noSequence;
    const auto sequence = isSequence ? std::optional(finished.report.result.number) : std::nullopt;
    for (const EntryIndex file : plan.filesOf(finished.job)) postFile(file, seconds, sequence);
  }
}

void Run::State::prove(const Batch::Finished& finished, std::vector<FileOfRecord>& records) {
  const Job& job = finished.job;
  const JobReport& report = finished.report;
  const bool isCopy = job.kind == JobKind::copy;
  const std::vector<FileDigest>& digests = isCopy ? report.output.digests() : report.result.digests;
  const auto position = records.size();
  addRecords(job, records);
  std::size_t item = 0;
  for (std::size_t record = position; record < records.size(); ++record, ++item) {
    FileOfRecord& file = records[record];
    const std::size_t index = item / job.destinations.size();
    const EntryIndex entry = plan.filesOf(job)[index];
    const bool wasProved =
        entry < settings.knownProofs.size() && settings.knownProofs[entry].contains(file.destination);
    const bool isUnread = isCopy && !settings.setup.readBack;
    const bool isAdopted = !isCopy && !wasProved;
    if (index < digests.size()) takeDigest(entry, digests[index]);
    if (!isCopy) agreeAt(entry, file.destination);
    if (item < report.result.items.size()) {
      const ItemResult& left = report.result.items[item];
      results.after[file.destination][entry] = left.facts;
      if (!left.remark.empty()) remark(file.destination, left.remark);
    }
    results.setProof(entry, file.destination, isUnread ? Proof::unread : isAdopted ? Proof::adopted : Proof::copied);
    const platform::ItemFacts& after = results.after[file.destination][entry];
    file.record.state = isUnread    ? FileRecord::State::copied
                        : isAdopted ? FileRecord::State::adopted
                                    : FileRecord::State::proved;
    file.record.digest = results.digests[entry];
    file.record.destinationSize = after.size;
    file.record.destinationModified = after.modified;
  }
}

// A file of the card that once gave another digest, here or in an earlier run, does not read the same each time.
void Run::State::takeDigest(EntryIndex entry, const FileDigest& digest) {
  const FileDigest known = results.digests[entry];
  if (known.algorithm == digest.algorithm && known != digest) results.unstable.insert(entry);
  results.digests[entry] = digest;
  results.read[entry] = nanosecondsSince1970();
}

// Of several copies a comparison does not say which one differs. Once all of them agree with the card, it was the card that
// read differently.
void Run::State::agreeAt(EntryIndex entry, std::size_t destination) {
  const auto differed = differedOnce.find(entry);
  if (differed == differedOnce.end()) return;
  differed->second = differed->second.without(DestinationSet::only(destination));
  if (differed->second.empty()) results.unstable.insert(entry);
}

// True when the job will be tried once more.
bool Run::State::fail(const Job& job, const JobReport& report, bool isRetry) {
  const JobResult& result = report.result;
  // What differs makes room where that was asked for.
  const bool makesRoom = job.kind == JobKind::compare && job.replaces && result.status == WorkStatus::differs;
  for (const EntryIndex file : plan.filesOf(job)) {
    if (result.status == JobStatus::verificationFailed) results.unstable.insert(file);
    if (result.status == WorkStatus::differs && !makesRoom && !isRetry) differedOnce[file] = job.destinations;
    if (job.kind == JobKind::copy && !job.usesAlias) {
      leftBehind.push_back({.path = card.pathOf(file) + ".kdxcopy", .destinations = job.destinations});
    }
  }
  if (!isRetry && signal == 0) {
    failedOnce.push_back({.job = job, .result = result});
    if (makesRoom) failedOnce.back().job.kind = JobKind::copy;
    return true;
  }
  if (isRetry && result.status == WorkStatus::stalled) silent = silent.with(job.destinations);
  if (!makesRoom) forgetWhatIsNotOurs(job, result.status);
  addFailures(job, result);
  return false;
}

// Somebody else's file stands at a name that a job was about to write. In any other case it may be that what stands there now
// is what the job left.
void Run::State::forgetWhatIsNotOurs(const Job& job, int status) {
  if (status != JobStatus::finalNameTaken && status != WorkStatus::inTheWay && status != WorkStatus::differs) return;
  std::vector<FileOfRecord> records;
  addRecords(job, records);
  catalogue.forget(records);
}

// The job as it is to be tried again: each destination by itself, so that one that is gone, full or different takes nothing
// from the others. What has got its name meanwhile is compared instead, whoever gave it.
std::vector<Job> Run::State::asItStands(const Job& job) {
  const DestinationSet taken = job.kind == JobKind::compare ? job.destinations : takenNames(job);
  std::vector<Job> jobs;
  for (std::size_t position = 0; position < settings.setup.destinations.size(); ++position) {
    if (!job.destinations.contains(position)) continue;
    jobs.push_back(job);
    jobs.back().kind = taken.contains(position) ? JobKind::compare : JobKind::copy;
    jobs.back().destinations = DestinationSet::only(position);
  }
  return jobs;
}

// Where a file stands now under the name of a file that was to be copied, and was not to replace anything.
DestinationSet Run::State::takenNames(const Job& job) {
  DestinationSet taken;
  if (job.replaces) return taken;
  for (std::size_t position = 0; position < settings.setup.destinations.size(); ++position) {
    if (!job.destinations.contains(position) || silent.contains(position)) continue;
    const auto isTaken = isNameTaken(position, plan.files[job.first]);
    if (!isTaken) silent.insert(position);
    if (isTaken.value_or(false)) taken.insert(position);
  }
  return taken;
}

// None when the destination does not answer: nobody may wait for it for long here.
std::optional<bool> Run::State::isNameTaken(std::size_t position, EntryIndex file) const {
  const double patience = std::min(settings.stallSeconds, longestAnswer);
  std::function<bool(const std::function<void()>&)> look =
      [root = settings.setup.destinations[position], above = card.folderOf(file),
       name = card.entries[file].name](const std::function<void()>&) {
        const auto top = platform::Folder::open(root, nullptr);
        const auto folder = top ? top->openFolder(above, nullptr) : std::nullopt;
        const auto facts = folder ? folder->factsOf(name, nullptr) : std::nullopt;
        return facts && facts->kind == platform::ItemKind::file;
      };
  return watched<bool>(patience, std::move(look), [] {});
}

// One for each file and destination, in this order: those of a file together.
void Run::State::addRecords(const Job& job, std::vector<FileOfRecord>& records) const {
  for (const EntryIndex file : plan.filesOf(job)) {
    const platform::ItemFacts& facts = card.entries[file].facts;
    for (std::size_t position = 0; position < settings.setup.destinations.size(); ++position) {
      if (!job.destinations.contains(position)) continue;
      records.push_back({.destination = position,
                         .path = card.pathOf(file),
                         .record = {.size = facts.size, .modified = facts.modified}});
    }
  }
}

void Run::State::addFailures(const Job& job, const JobResult& result) {
  for (const EntryIndex file : plan.filesOf(job)) addFailure(file, result.status, result.reason, job.destinations);
}

void Run::State::addFailure(EntryIndex entry, int status, const std::string& detail, DestinationSet destinations) {
  const std::string reason = reasonForStatus(status);
  const std::string whole = detail.empty() ? reason : reason + " (" + detail + ")";
  Failure& failure =
      results.failures.try_emplace(entry, Failure{.status = status, .reason = whole, .destinations = {}}).first->second;
  failure.destinations = failure.destinations.with(destinations);
}

// What became of folders and links.
void Run::State::takeItems(const EntriesOrder& order, const JobReport& report) {
  std::size_t item = 0;
  for (const EntryIndex entry : order.entries) {
    for (std::size_t position = 0; position < settings.setup.destinations.size(); ++position) {
      if (!order.order.destinations.contains(position)) continue;
      const bool isKnown = item < report.result.items.size();
      const ItemResult unknown{.status = report.result.status, .remark = report.result.reason};
      const bool isGood = isKnown && (report.result.status == 0 || report.result.items[item].status != 0);
      const ItemResult& left = isGood ? report.result.items[item] : unknown;
      ++item;
      if (left.status == 0) {
        results.setProof(entry, position, Proof::copied);
        results.after[position][entry] = left.facts;
        if (!left.remark.empty()) remark(position, left.remark);
      } else {
        results.setProof(entry, position, Proof::none);
        addFailure(entry, left.status, left.remark, DestinationSet::only(position));
      }
    }
  }
}

void Run::State::remark(std::size_t destination, const std::string& text) {
  const std::string whole =
      "mode or time of change could not be kept everywhere at " + settings.destinationPaths[destination] + ": " + text;
  if (std::ranges::find(results.remarks, whole) == results.remarks.end()) results.remarks.push_back(whole);
}

void Run::State::postPlan() {
  Planned planned{.card = settings.cardPath,
                  .destinations = settings.destinationPaths,
                  .sequences = plan.sequences.size(),
                  .readBack = settings.setup.readBack};
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    const platform::ItemFacts& facts = card.entries[index].facts;
    if (facts.kind == platform::ItemKind::folder) ++planned.folders;
    if (facts.kind == platform::ItemKind::link) ++planned.links;
    if (!isFile(index)) continue;
    ++planned.files;
    planned.bytes += facts.size;
    if (plan.proved[index] != everywhere()) continue;
    ++planned.filesDoneBefore;
    planned.bytesDoneBefore += facts.size;
  }
  files = planned.files;
  bytes = planned.bytes;
  post(planned);
  for (const std::string& warning : plan.warnings) post(Warned{.text = warning, .path = std::nullopt});
}

void Run::State::postPlannedOutcomes() {
  // What was proved before must at the end still stand as it was found.
  if (!settings.foundBefore.empty()) results.after = std::move(settings.foundBefore);
  for (const PlannedFailure& failure : plan.failures) {
    Failure& known =
        results.failures
            .try_emplace(failure.entry,
                         Failure{.status = 0, .reason = reasonForObstacle(failure.obstacle), .destinations = {}})
            .first->second;
    known.destinations = known.destinations.with(failure.destinations);
  }
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    const auto failure = results.failures.find(index);
    const DestinationSet failing = failure == results.failures.end() ? DestinationSet() : failure->second.destinations;
    const DestinationSet toMake = plan.folders[index].with(plan.links[index]);
    const platform::ItemKind kind = card.entries[index].facts.kind;
    const bool isCopied = kind == platform::ItemKind::folder || kind == platform::ItemKind::link;
    const DestinationSet made = isCopied ? everywhere().without(toMake).without(failing) : DestinationSet();
    const DestinationSet there = isFile(index) ? plan.proved[index] : made;
    for (std::size_t position = 0; position < settings.setup.destinations.size(); ++position) {
      if (there.contains(position)) {
        results.setProof(index, position, Proof::before);
      } else {
        results.after[position][index] = {};
      }
    }
    if (!isFile(index)) continue;
    if (index < settings.knownDigests.size()) results.digests[index] = settings.knownDigests[index];
    postFile(index, 0);
  }
  for (const std::string& path : card.excluded) post(FileEnded{.path = path, .outcome = FileOutcome::excluded});
  for (const Job& job : plan.jobs) {
    uint64_t size = 0;
    for (const EntryIndex file : plan.filesOf(job)) size += card.entries[file].facts.size;
    const bool copies = job.kind == JobKind::copy;
    meter.expect(copies ? size : 0, settings.setup.readBack || !copies ? size : 0);
  }
}

// Tells of the file as soon as it is proved everywhere.
void Run::State::postFile(EntryIndex entry, double jobSeconds, std::optional<uint64_t> sequenceJob) {
  if (isReported[entry] || !results.isProvedEverywhere(entry) || results.unstable.contains(entry)) return;
  isReported[entry] = true;
  ++filesProved;
  bytesProved += card.entries[entry].facts.size;
  FileOutcome outcome = FileOutcome::alreadyProved;
  for (std::size_t position = 0; position < results.destinations(); ++position) {
    const Proof proof = results.proof(entry, position);
    if (proof == Proof::copied || proof == Proof::unread) outcome = FileOutcome::proved;
    if (proof == Proof::adopted && outcome == FileOutcome::alreadyProved) outcome = FileOutcome::adopted;
  }
  post(FileEnded{.path = card.pathOf(entry),
                 .size = card.entries[entry].facts.size,
                 .digest = results.digests[entry],
                 .outcome = outcome,
                 .jobSeconds = jobSeconds,
                 .seconds = now(),
                 .sequenceJob = sequenceJob});
}

// The files that are not proved.
void Run::State::postRest() {
  for (const FailedOnce& failed : failedOnce) addFailures(failed.job, failed.result);
  for (const EntryIndex file : results.unstable) addFailure(file, JobStatus::verificationFailed, "", everywhere());
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    if (!isFile(index) || isReported[index]) continue;
    isReported[index] = true;
    if (const auto first = firstFailures.find(index); first != firstFailures.end()) {
      const DestinationSet lacking = everywhere().without(results.provedAt(index));
      if (!results.failures.contains(index)) addFailure(index, first->second.status, first->second.reason, lacking);
    }
    if (!results.failures.contains(index)) {
      results.failures[index] = {.status = 0,
                                 .reason = "its turn did not come before the offload was stopped",
                                 .destinations = everywhere().without(results.provedAt(index))};
    }
    const Failure& failure = results.failures[index];
    post(FileEnded{.path = card.pathOf(index),
                   .size = card.entries[index].facts.size,
                   .outcome = FileOutcome::failed,
                   .status = failure.status,
                   .reason = failure.reason,
                   .seconds = now()});
  }
}

void Run::State::tellState(bool isAsked) {
  meter.tick(now());
  Progress progress{.bytesDone = bytesProved,
                    .bytes = bytes,
                    .filesDone = filesProved,
                    .files = files,
                    .failures = results.failures.size(),
                    .share = meter.share(),
                    .bytesPerSecond = meter.bytesPerSecond(),
                    .secondsLeft = meter.secondsLeft(),
                    .seconds = now(),
                    .isAsked = isAsked};
  const std::vector<uint64_t> freeBytes = freeRoom.bytes();
  for (std::size_t position = 0; position < freeBytes.size(); ++position) {
    progress.destinations.push_back({.path = settings.destinationPaths[position], .freeBytes = freeBytes[position]});
  }
  post(progress);
}

void Run::State::watch() {
  if (now() >= nextSign) {
    nextSign = now() + secondsBetweenSigns;
    catalogue.stillAtWork(std::chrono::system_clock::now());
  }
  clock.expires_after(betweenStates);
  clock.async_wait([self = shared_from_this()](std::error_code error) {
    if (error || self->stage == Stage::over) return;
    self->tellState(false);
    self->watch();
  });
}

}  // namespace kdxoffload
