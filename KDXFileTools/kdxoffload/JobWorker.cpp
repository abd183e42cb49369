#include "KDXFileTools/kdxoffload/JobWorker.h"

#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <memory>
#include <tuple>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/FrontEnd.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchVerify.h"
#include "platform/Process.h"
#include "platform/TasksHere.h"
#include "platform/WorkerThreads.h"

namespace kdxoffload {

namespace {

using platform::Folder;
using platform::ItemKind;
using Failure = std::optional<platform::Error>;

bool failed(JobResult& result, int status, std::string reason) {
  // The first failure is the one that is reported.
  if (result.status != 0) return false;
  result.status = status;
  result.reason = std::move(reason);
  return false;
}

bool failed(JobResult& result, int status, const Failure& failure) {
  return failed(result, status, failure ? failure->description.value_or("") : "");
}

std::string algorithmWord(uint32_t algorithm) {
  if (algorithm == KDXDigestAlgorithmMD5) return "md5";
  return algorithm == KDXDigestAlgorithmSHA1 ? "sha1" : "xxhash64be";
}

::CommandLine jobLine(const WorkerSetup& setup) {
  ::CommandLine line;
  if (!setup.readBack) line.verificationOptions = KDXVerificationOptionHashDuringCopy;
  line.algorithmWord = algorithmWord(setup.algorithm);
  line.verbose = true;
  return line;
}

// What a failed job left at work may go on using it until the process is gone, so the process ends with it.
void runOrEnd(const ::CommandLine& line) {
  std::optional<platform::Error> error;
  const std::shared_ptr<KDXDispatchCopy> job = makeJob(line);
  const int status = job ? runJob(job, &error) : ::exitStatusOf(std::nullopt);
  if (status != 0) platform::endProcess(status);
}

std::string pathIn(const Folder& folder, const std::string& name) {
  return folder.path() + '/' + name;
}

// "a/b/c" gives "a/b" and "c".
std::pair<std::string, std::string> folderAndName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

// The rights to run as the file's owner are not kept, since owners are not: they would become somebody else's.
uint32_t keptMode(uint32_t mode) {
  constexpr uint32_t withoutSetID = 01777;
  return mode & withoutSetID;
}

// What a job calls its file in the private folder: its number, and while it is not proved a temporary name. Anything else
// there is somebody else's.
bool isAlias(std::string_view name) {
  constexpr std::string_view temporary = ".kdxcopy";
  if (name.ends_with(temporary)) name.remove_suffix(temporary.size());
  return !name.empty() && std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
}

// A folder has its card's mode since the last run, and may not be one to write in. It gets that mode back at the end.
bool openToOwner(const Folder& parent, const std::string& name, platform::ErrorPlace error) {
  constexpr uint32_t writeAndSearch = 0300;
  const std::optional<Folder> folder = parent.openFolder(name, error);
  const auto facts = folder ? folder->facts(error) : std::nullopt;
  if (!facts || (facts->mode & writeAndSearch) == writeAndSearch) return facts.has_value();
  // Some may write in it all the same. What can't be written says so itself.
  folder->setModeAndTime(facts->mode | writeAndSearch, facts->modified, nullptr);
  return true;
}

struct Reading {
  std::optional<FileDigest> digest;  // none when it could not be read
};

Reading digestOf(int file, uint32_t algorithm) {
  const auto verify =
      KDXDispatchVerify::initWithFileURL(platform::FileURL(platform::pathOfDescriptor(file)), algorithm);
  const std::shared_ptr<KDXDigestContext> digest = verify->calculateDigest(nullptr);
  if (!digest || verify->readFailed()) return {};
  return {FileDigest::fromText(digest->digestString())};
}

}  // namespace

JobWorker::JobWorker(WorkerSetup setup) : _setup(std::move(setup)), _destinations(_setup.destinations.size()) {}

JobResult JobWorker::perform(const JobOrder& order) {
  JobResult result{.number = order.number};
  constexpr std::pair<Task, void (JobWorker::*)(const JobOrder&, JobResult&)> tasks[] = {
      {Task::copy, &JobWorker::copy},           {Task::sequence, &JobWorker::copySequence},
      {Task::compare, &JobWorker::compare},     {Task::makeFolders, &JobWorker::makeFolders},
      {Task::makeLinks, &JobWorker::makeLinks}, {Task::keepFolders, &JobWorker::keepFolders},
      {Task::sync, &JobWorker::sync},           {Task::clean, &JobWorker::clean},
  };
  for (const auto& [task, work] : tasks) {
    if (task == order.task && openPlaces(order, result)) (this->*work)(order, result);
  }
  return result;
}

const Folder* JobWorker::destination(std::size_t position, JobResult& result) {
  if (position >= _destinations.size()) return nullptr;
  std::optional<Folder>& root = _destinations[position];
  Failure failure;
  if (!root) root = Folder::open(_setup.destinations[position], &failure);
  if (!root) failed(result, WorkStatus::notReachable, failure);
  return root ? &*root : nullptr;
}

bool JobWorker::openPlaces(const JobOrder& order, JobResult& result) {
  _places.clear();
  Failure failure;
  for (std::size_t position = 0; position < _destinations.size(); ++position) {
    if (!order.destinations.contains(position)) continue;
    const Folder* const root = destination(position, result);
    if (root == nullptr) return false;
    std::optional<Folder> folder = root->openFolder(order.folder, &failure);
    if (!folder) return failed(result, WorkStatus::notReachable, failure);
    _places.push_back({.position = position, .root = root, .folder = std::move(*folder)});
  }
  const bool needsCard = order.task == Task::copy || order.task == Task::sequence || order.task == Task::compare;
  if (!needsCard) return true;
  if (!_card) _card = Folder::open(_setup.card, &failure);
  _source = _card ? _card->openFolder(order.folder, &failure) : std::nullopt;
  return _source.has_value() || failed(result, WorkStatus::notReachable, failure);
}

// A sync of the whole file system does not reach the device everywhere, and not another file system that is mounted below.
bool JobWorker::isReachedBySync(const Place& place, const Folder& folder) {
  const auto root = place.root->facts(nullptr);
  const auto facts = folder.facts(nullptr);
  return root && facts && root->identity.device == facts->identity.device && place.root->canSyncFileSystem();
}

bool JobWorker::mustFlush(const JobOrder& order) const {
  return order.flushes ||
         !std::ranges::all_of(_places, [](const Place& place) { return isReachedBySync(place, place.folder); });
}

bool JobWorker::isAsListed(const OrderedItem& item, JobResult& result) const {
  Failure failure;
  const std::optional<platform::ItemFacts> facts = _source->factsOf(item.name, &failure);
  if (!facts) return failed(result, WorkStatus::notReachable, failure);
  const bool same = facts->kind == ItemKind::file && facts->size == item.size && facts->modified == item.modified;
  return same || failed(result, WorkStatus::sourceChanged, "");
}

void JobWorker::copy(const JobOrder& order, JobResult& result) {
  const OrderedItem& item = order.items.at(0);
  if (!isAsListed(item, result)) return;
  // Many workers are at work side by side on small files, so that every processor has enough to do.
  std::optional<platform::TasksHere> here;
  if (item.size <= platform::notWorthAThread) here.emplace();
  if (order.usesAlias) {
    copyUnderAlias(order, result);
  } else {
    ::CommandLine line = jobLine(_setup);
    line.source = platform::FileURL(pathIn(*_source, item.name));
    for (const Place& place : _places) line.destinations.emplace_back(pathIn(place.folder, item.name));
    line.forceOverwrite = order.replaces;
    line.skipFlush = !mustFlush(order);
    runOrEnd(line);
  }
  if (result.status == 0 && isAsListed(item, result)) keepFiles(order, mustFlush(order), result);
}

void JobWorker::copyUnderAlias(const JobOrder& order, JobResult& result) {
  Failure failure;
  const platform::FileDescriptor source = _source->openFile(order.items[0].name, &failure);
  if (!source.isOpen()) {
    failed(result, WorkStatus::notReachable, failure);
    return;
  }
  const std::string alias = fmt::format("{}", order.number);
  std::vector<Folder> folders;
  ::CommandLine line = jobLine(_setup);
  line.source = platform::FileURL(platform::pathOfDescriptor(source.get()));
  for (const Place& place : _places) {
    std::optional<Folder> folder = place.root->makeFolders(_setup.privateFolder, &failure);
    if (!folder) {
      failed(result, WorkStatus::notReachable, failure);
      return;
    }
    line.destinations.emplace_back(pathIn(*folder, alias));
    folders.push_back(std::move(*folder));
  }
  // What stands there was left by a run that did not come to its end.
  line.forceOverwrite = true;
  line.skipFlush = !mustFlush(order);
  runOrEnd(line);
  moveFromAlias(order, alias, result);
}

void JobWorker::moveFromAlias(const JobOrder& order, const std::string& alias, JobResult& result) const {
  const std::string& name = order.items[0].name;
  for (const Place& place : _places) {
    Failure failure;
    const std::optional<Folder> aliases = place.root->openFolder(_setup.privateFolder, &failure);
    const auto inTheWay = place.folder.factsOf(name, &failure);
    const auto proved = aliases ? aliases->factsOf(alias, &failure) : std::nullopt;
    const bool isThere = proved && proved->kind == ItemKind::file;
    const bool makesRoom = isThere && order.replaces && inTheWay && inTheWay->kind == ItemKind::file;
    const bool moved = aliases && inTheWay && (!makesRoom || place.folder.removeItem(name, &failure)) &&
                       aliases->moveItem(alias, place.folder, name, &failure);
    if (!moved) {
      const bool isTaken = failure && failure->code == EEXIST;
      failed(result, isTaken ? WorkStatus::inTheWay : WorkStatus::systemError, failure);
      return;
    }
    if (!place.folder.sync(&failure) || !aliases->sync(&failure)) failed(result, WorkStatus::notKept, failure);
  }
}

void JobWorker::copySequence(const JobOrder& order, JobResult& result) {
  for (const OrderedItem& item : order.items) {
    if (!isAsListed(item, result)) return;
  }
  ::CommandLine line = jobLine(_setup);
  line.isSequence = true;
  line.sourceSequence = KDXFileSequence::initWithIdentifier(pathIn(*_source, order.identifier));
  // The last component of a sequence's destination is dropped, whatever it is.
  for (const Place& place : _places) line.destinations.emplace_back(pathIn(place.folder, "frames"));
  line.forceOverwrite = order.replaces;
  line.skipFlush = !mustFlush(order);
  runOrEnd(line);
  for (const OrderedItem& item : order.items) {
    if (!isAsListed(item, result)) return;
  }
  keepFiles(order, mustFlush(order), result);
}

void JobWorker::keepFiles(const JobOrder& order, bool flush, JobResult& result) const {
  // A file by itself is synced by itself; of many, once for all where that can be.
  const bool each = order.items.size() == 1;
  for (const OrderedItem& item : order.items) {
    for (const Place& place : _places) {
      ItemResult& kept = result.items.emplace_back();
      Failure failure;
      const platform::FileDescriptor file = place.folder.openFile(item.name, &failure);
      if (!file.isOpen()) {
        kept.status = WorkStatus::notKept;
        failed(result, WorkStatus::notKept, failure);
        continue;
      }
      if (!platform::setModeAndTime(file.get(), keptMode(item.mode), item.modified, &failure)) {
        kept.remark = failure->description.value_or("");
      }
      const bool alone = each || !place.folder.canSyncFileSystem();
      if (flush && alone && !platform::syncFile(file.get(), &failure)) failed(result, WorkStatus::notKept, failure);
      kept.facts = platform::factsOfOpenFile(file.get()).value_or(platform::ItemFacts{});
    }
  }
  if (!flush || each) return;
  for (const Place& place : _places) {
    Failure failure;
    const bool together = place.folder.canSyncFileSystem();
    if (together && !place.folder.syncFileSystem(&failure)) failed(result, WorkStatus::notKept, failure);
  }
}

void JobWorker::compare(const JobOrder& order, JobResult& result) {
  const OrderedItem& item = order.items.at(0);
  if (!isAsListed(item, result)) return;
  Failure failure;
  const platform::FileDescriptor source = _source->openFile(item.name, &failure);
  if (!source.isOpen()) {
    failed(result, WorkStatus::notReachable, failure);
    return;
  }
  const auto sourceFacts = platform::factsOfOpenFile(source.get());
  std::vector<platform::FileDescriptor> copies;
  std::vector<std::future<Reading>> readings;
  for (const Place& place : _places) {
    copies.push_back(place.folder.openFile(item.name, &failure));
    const auto facts = copies.back().isOpen() ? platform::factsOfOpenFile(copies.back().get()) : std::nullopt;
    if (!facts) failed(result, WorkStatus::notReachable, failure);
    if (facts && sourceFacts && facts->identity == sourceFacts->identity) failed(result, WorkStatus::cardsOwnFile, "");
  }
  if (result.status != 0) return;
  readings.reserve(copies.size());
  // A failed job of reading ends the process; the others' threads end with it.
  for (const platform::FileDescriptor& copy : copies) {
    readings.push_back(std::async(std::launch::async, digestOf, copy.get(), _setup.algorithm));
  }
  const Reading original = digestOf(source.get(), _setup.algorithm);
  for (std::future<Reading>& reading : readings) {
    const Reading copy = reading.get();
    if (!original.digest || !copy.digest) failed(result, WorkStatus::systemError, "reading failed");
    if (copy.digest != original.digest) failed(result, WorkStatus::differs, "");
  }
  if (result.status != 0 || !isAsListed(item, result)) return;
  result.digests.push_back(*original.digest);
  keepFiles(order, mustFlush(order), result);
  for (const Place& place : _places) {
    if (mustFlush(order) && !place.folder.sync(&failure)) failed(result, WorkStatus::notKept, failure);
  }
}

void JobWorker::makeFolders(const JobOrder& order, JobResult& result) {
  std::vector<bool> isSyncedAtEnd(_places.size());
  for (const OrderedItem& item : order.items) {
    const auto [above, name] = folderAndName(item.name);
    for (std::size_t place = 0; place < _places.size(); ++place) {
      ItemResult& made = result.items.emplace_back();
      Failure failure;
      const std::optional<Folder> parent = _places[place].folder.openFolder(above, &failure);
      bool isMade = parent && parent->makeFolder(name, &failure) && openToOwner(*parent, name, &failure);
      const bool isReached = isMade && isReachedBySync(_places[place], *parent);
      if (isReached) isSyncedAtEnd[place] = true;
      if (isMade && !isReached) isMade = parent->sync(&failure);
      if (isMade) continue;
      made.status = WorkStatus::notReachable;
      made.remark = failure ? failure->description.value_or("") : "";
    }
  }
  // What is copied into a folder is only as permanent as the folder's name.
  syncWhere(isSyncedAtEnd, result);
}

void JobWorker::syncWhere(const std::vector<bool>& places, JobResult& result) const {
  for (std::size_t place = 0; place < _places.size(); ++place) {
    Failure failure;
    if (places[place] && !_places[place].root->syncFileSystem(&failure)) failItemsAt(place, failure, result);
  }
}

void JobWorker::failItemsAt(std::size_t place, const std::optional<platform::Error>& why, JobResult& result) const {
  for (std::size_t item = place; item < result.items.size(); item += _places.size()) {
    result.items[item].status = WorkStatus::notKept;
    result.items[item].remark = why ? why->description.value_or("") : "";
  }
}

void JobWorker::makeLinks(const JobOrder& order, JobResult& result) {
  for (const OrderedItem& item : order.items) {
    for (const Place& place : _places) {
      ItemResult& made = result.items.emplace_back();
      Failure failure;
      const auto there = place.folder.factsOf(item.name, &failure);
      const bool isThere =
          there && there->kind == ItemKind::link && place.folder.linkTarget(item.name, nullptr) == item.target;
      if (!isThere && !place.folder.makeLink(item.name, item.target, &failure)) {
        made.status = there && there->kind != ItemKind::absent ? WorkStatus::inTheWay : WorkStatus::systemError;
        made.remark = failure->description.value_or("");
        continue;
      }
      std::ignore = place.folder.setLinkTime(item.name, item.modified, nullptr);  // few file systems keep it
      made.facts = place.folder.factsOf(item.name, nullptr).value_or(platform::ItemFacts{});
    }
  }
  for (std::size_t place = 0; place < _places.size(); ++place) {
    Failure failure;
    if (!_places[place].folder.sync(&failure)) failItemsAt(place, failure, result);
  }
}

void JobWorker::keepFolders(const JobOrder& order, JobResult& result) {
  std::vector<bool> isSyncedAtEnd(_places.size());
  for (const OrderedItem& item : order.items) {
    for (std::size_t position = 0; position < _places.size(); ++position) {
      const Place& place = _places[position];
      ItemResult& kept = result.items.emplace_back();
      Failure failure;
      const std::optional<Folder> folder = place.folder.openFolder(item.name, &failure);
      if (!folder) {
        kept.status = WorkStatus::notReachable;
        kept.remark = failure->description.value_or("");
        continue;
      }
      const auto facts = folder->facts(nullptr);
      const bool isKept = facts && facts->mode == keptMode(item.mode) && facts->modified == item.modified;
      if (!isKept && !folder->setModeAndTime(keptMode(item.mode), item.modified, &failure)) {
        kept.remark = failure->description.value_or("");
      }
      const bool isReached = isReachedBySync(place, *folder);
      if (!isKept && isReached) isSyncedAtEnd[position] = true;
      if (!isKept && !isReached && !folder->sync(&failure)) kept.status = WorkStatus::notKept;
      kept.facts = folder->facts(nullptr).value_or(platform::ItemFacts{});
    }
  }
  syncWhere(isSyncedAtEnd, result);
}

void JobWorker::sync(const JobOrder& /*order*/, JobResult& result) {
  for (const Place& place : _places) {
    Failure failure;
    // What it does not reach was flushed by the orders themselves.
    const bool isReached = place.root->canSyncFileSystem();
    if (isReached && !place.root->syncFileSystem(&failure)) failed(result, WorkStatus::notKept, failure);
  }
}

void JobWorker::clean(const JobOrder& order, JobResult& /*result*/) {
  for (const Place& place : _places) {
    for (const OrderedItem& item : order.items) {
      const auto [above, name] = folderAndName(item.name);
      const std::optional<Folder> folder = place.folder.openFolder(above, nullptr);
      const auto facts = folder ? folder->factsOf(name, nullptr) : std::nullopt;
      if (facts && facts->kind == ItemKind::file) std::ignore = folder->removeItem(name, nullptr);
    }
    const std::optional<Folder> aliases = place.root->openFolder(_setup.privateFolder, nullptr);
    if (_setup.privateFolder.empty() || !aliases) continue;
    for (const std::string& name : aliases->names(nullptr).value_or(std::vector<std::string>())) {
      if (isAlias(name)) std::ignore = aliases->removeItem(name, nullptr);
    }
    std::ignore = place.root->removeFolder(_setup.privateFolder, nullptr);
  }
}

}  // namespace kdxoffload
