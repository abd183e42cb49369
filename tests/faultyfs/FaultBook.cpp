#include "FaultBook.h"

#include <fcntl.h>
#include <fnmatch.h>

#include <algorithm>
#include <cerrno>

namespace faultyfs {

namespace {

bool matches(const std::string& pattern, const std::string& path) {
  return ::fnmatch(pattern.c_str(), path.c_str(), 0) == 0;
}

bool covers(const ByteRange& range, std::uint64_t offset) {
  return range.begin <= offset && offset < range.end;
}

// Whether the n-th occasion is among those that a fault affects.
bool isDue(const Fault& fault, std::uint64_t n) {
  return n >= fault.from && n - fault.from < fault.times;
}

// Bytes that a file already has can be written again, even beyond the limit.
std::uint64_t spaceFor(const Fault& fault, std::uint64_t size) {
  return std::max(fault.length, size);
}

void limitToSpace(std::uint64_t space, const ByteRange& range, Verdict& verdict) {
  if (range.begin >= space) {
    verdict.error = ENOSPC;
  } else {
    verdict.limit = std::min(verdict.limit, space - range.begin);
  }
}

}  // namespace

std::uint64_t FaultBook::add(Fault fault) {
  const std::lock_guard lock(_mutex);
  _rules.push_back({++_lastNumber, std::move(fault), 0, {}});
  _fired[_lastNumber] = 0;
  return _lastNumber;
}

void FaultBook::remove(std::uint64_t number) {
  const std::lock_guard lock(_mutex);
  _rules.remove_if([number](const Rule& rule) { return rule.number == number; });
  _changed.notify_all();
}

void FaultBook::clear() {
  const std::lock_guard lock(_mutex);
  _rules.clear();
  _changed.notify_all();
}

std::uint64_t FaultBook::timesFired(std::uint64_t number) const {
  const std::lock_guard lock(_mutex);
  return _fired.at(number);
}

bool FaultBook::waitUntilFired(std::uint64_t number, std::uint64_t count, std::chrono::milliseconds patience) const {
  std::unique_lock lock(_mutex);
  return _changed.wait_for(lock, patience, [&] { return _fired.at(number) >= count; });
}

bool FaultBook::concerns(const Fault& fault, const Request& request) {
  switch (fault.effect) {
    case Effect::FailAt:
    case Effect::Tear:
      return covers(request.range, fault.offset);
    case Effect::DropRange:
      return request.range.begin < fault.offset + fault.length && fault.offset < request.range.end;
    case Effect::RunOutOfSpace:
      return request.range.end > spaceFor(fault, request.size);
    case Effect::LimitTo:
      return request.range.end - request.range.begin > fault.length;
    case Effect::RefuseDirect:
      return (request.flags & O_DIRECT) != 0;
    case Effect::RefuseFlags:
      return request.flags != 0;
    case Effect::RefuseFolders:
      return (request.flags & O_DIRECTORY) != 0;
    case Effect::FlipBit:
      return false;  // counted by passes, in flipBits()
    case Effect::Fail:
    case Effect::Delay:
    case Effect::LieAboutSize:
    case Effect::NumberAnew:
    case Effect::NumberByName:
    case Effect::RoundTimes:
    case Effect::IgnoreCase:
    case Effect::BypassCache:
      break;
  }
  return true;
}

void FaultBook::apply(const Rule& rule, const Request& request, Verdict& verdict) {
  const Fault& fault = rule.fault;
  switch (fault.effect) {
    case Effect::Fail:
    case Effect::FailAt:
    case Effect::RefuseDirect:
    case Effect::RefuseFlags:
    case Effect::RefuseFolders:
      verdict.error = fault.error;
      break;
    case Effect::LimitTo:
      verdict.limit = std::min(verdict.limit, fault.length);
      break;
    case Effect::RunOutOfSpace:
      limitToSpace(spaceFor(fault, request.size), request.range, verdict);
      break;
    case Effect::DropRange:
      verdict.lost.push_back({fault.offset, fault.offset + fault.length});
      break;
    case Effect::Tear:
      verdict.lost.push_back({request.range.begin + fault.length, request.range.end});
      break;
    case Effect::Delay:
      verdict.delays.push_back(rule.number);
      verdict.delay = std::max(verdict.delay, std::chrono::milliseconds(fault.amount));
      break;
    case Effect::LieAboutSize:
      verdict.sizeLie += fault.amount;
      break;
    case Effect::NumberAnew:
      verdict.numberByReference = true;
      break;
    case Effect::NumberByName:
      verdict.numberByName = true;
      break;
    case Effect::RoundTimes:
      verdict.timeGrain = std::chrono::milliseconds(fault.amount);
      break;
    case Effect::IgnoreCase:
      verdict.ignoreCase = true;
      break;
    case Effect::BypassCache:
      verdict.bypassCache = true;
      break;
    case Effect::FlipBit:
      break;
  }
}

void FaultBook::countFiring(const Rule& rule) {
  ++_fired[rule.number];
  _changed.notify_all();
}

Verdict FaultBook::judge(const Request& request) {
  Verdict verdict;
  const std::lock_guard lock(_mutex);
  for (Rule& rule : _rules) {
    const Fault& fault = rule.fault;
    const bool named = matches(fault.pattern, request.path) ||
                       (!request.otherPath.empty() && matches(fault.pattern, request.otherPath));
    if (fault.operation == request.operation && named && concerns(fault, request) && isDue(fault, ++rule.met)) {
      apply(rule, request, verdict);
      countFiring(rule);
    }
  }
  return verdict;
}

bool FaultBook::hasSpaceFor(const std::string& path, std::uint64_t size, std::uint64_t newSize) const {
  const std::lock_guard lock(_mutex);
  return std::ranges::none_of(_rules, [&](const Rule& rule) {
    return rule.fault.effect == Effect::RunOutOfSpace && newSize > spaceFor(rule.fault, size) &&
           matches(rule.fault.pattern, path);
  });
}

void FaultBook::delay(const Verdict& verdict) const {
  if (verdict.delays.empty()) {
    return;
  }
  const auto inForce = [&](const Rule& rule) {
    return std::ranges::find(verdict.delays, rule.number) != verdict.delays.end();
  };
  std::unique_lock lock(_mutex);
  _changed.wait_for(lock, verdict.delay, [&] { return _shutDown || std::ranges::none_of(_rules, inForce); });
}

void FaultBook::flipBits(Operation operation, const std::string& path, FileId id, std::uint64_t offset,
                         std::span<char> data) {
  const std::lock_guard lock(_mutex);
  for (Rule& rule : _rules) {
    const Fault& fault = rule.fault;
    const bool reached = covers({offset, offset + data.size()}, fault.offset);
    if (fault.effect != Effect::FlipBit || fault.operation != operation || !reached || !matches(fault.pattern, path)) {
      continue;
    }
    if (isDue(fault, ++rule.passes[id])) {
      char& byte = data[fault.offset - offset];
      byte = static_cast<char>(byte ^ (1 << fault.bit));
      countFiring(rule);
    }
  }
}

void FaultBook::startAfresh(FileId id) {
  const std::lock_guard lock(_mutex);
  for (Rule& rule : _rules) {
    rule.passes.erase(id);
  }
}

void FaultBook::shutDown() {
  const std::lock_guard lock(_mutex);
  _shutDown = true;
  _changed.notify_all();
}

}  // namespace faultyfs
