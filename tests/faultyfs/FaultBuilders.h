#pragma once

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "Protocol.h"

// The sentences in which tests describe faults. First come the words that restrict a fault (fromRequest, times, ...), then
// the verb that says what happens. When the verb returns, the fault is in force. It returns the number of the fault.
namespace faultyfs {

using FaultNumber = std::uint64_t;
using SetFault = std::function<FaultNumber(const Fault&)>;

// What all sentences have in common. Requests are counted from 1 from the moment when the fault is set, over all files that
// match the pattern together. Only requests that meet the condition of the verb count (failAt: those that cover the offset).
// Reading ahead by the kernel counts, too.
template <class Sentence>
class FaultSentence {
 public:
  FaultSentence(SetFault set, Operation operation, std::string pattern) : _set(std::move(set)) {
    _fault.operation = operation;
    _fault.pattern = std::move(pattern);
  }

  // Does not affect the requests before the n-th.
  Sentence& fromRequest(std::uint64_t n) {
    _fault.from = n;
    return static_cast<Sentence&>(*this);
  }

  // Ends after `count` affected requests.
  Sentence& times(std::uint64_t count) {
    _fault.times = count;
    return static_cast<Sentence&>(*this);
  }

 protected:
  FaultNumber set(Effect effect) {
    _fault.effect = effect;
    return _set(_fault);
  }

  Fault _fault;

 private:
  SetFault _set;
};

// A sentence with the verb that many operations share.
template <class Sentence>
class FailingSentence : public FaultSentence<Sentence> {
 public:
  using FaultSentence<Sentence>::FaultSentence;

  // The operation fails with `error` (errno) and has no effect.
  FaultNumber fail(int error) {
    this->_fault.error = error;
    return this->set(Effect::Fail);
  }
};

// An operation that can only fail: creating, closing, linking, unlinking, making folders.
class PlainFault : public FailingSentence<PlainFault> {
 public:
  using FailingSentence::FailingSentence;
};

// An operation that can also be slow: flushing a file or folder to the medium.
class SyncFault : public FailingSentence<SyncFault> {
 public:
  using FailingSentence::FailingSentence;

  // The sync of a folder fails, that of a file works.
  FaultNumber refuseFolders(int error = EINVAL) {
    _fault.error = error;
    return set(Effect::RefuseFolders);
  }

  FaultNumber delayBy(std::chrono::milliseconds delay) {
    _fault.amount = delay.count();
    return set(Effect::Delay);
  }
};

class OpenFault : public FailingSentence<OpenFault> {
 public:
  using FailingSentence::FailingSentence;

  // open(2) with O_DIRECT fails. A file that the same call has created stays, empty.
  FaultNumber refuseDirect(int error = EINVAL) {
    _fault.error = error;
    return set(Effect::RefuseDirect);
  }

  // Every read(2) and write(2) of the opened file becomes requests to the file system, without the page cache.
  FaultNumber bypassCache() { return set(Effect::BypassCache); }
};

class RenameFault : public FailingSentence<RenameFault> {
 public:
  using FailingSentence::FailingSentence;

  // A rename with any flag fails, a plain one works.
  FaultNumber refuseFlags(int error = EINVAL) {
    _fault.error = error;
    return set(Effect::RefuseFlags);
  }
};

class AttributeFault : public FaultSentence<AttributeFault> {
 public:
  using FaultSentence::FaultSentence;

  // Files look longer (or shorter, if negative) by this many bytes. The kernel believes it: it drops cached pages when the
  // size changes, and reads up to the reported size (missing bytes read as zeros).
  FaultNumber lieAboutSizeBy(std::int64_t bytes) {
    _fault.amount = bytes;
    return set(Effect::LieAboutSize);
  }

  // Files have the number by which the kernel refers to them, and get another one after the kernel has forgotten them, as on
  // servers without numbers of their own.
  FaultNumber numberAnew() { return set(Effect::NumberAnew); }

  // Files have a number that is made from the path by which they were last looked up. So every name has its own number, and a
  // file that is renamed gets another one, even while it is open.
  FaultNumber numberByName() { return set(Effect::NumberByName); }

  // The times of files are rounded down to multiples of `grain`.
  FaultNumber roundTimesTo(std::chrono::milliseconds grain) {
    _fault.amount = grain.count();
    return set(Effect::RoundTimes);
  }
};

// What a name stands for.
class LookUpFault : public FaultSentence<LookUpFault> {
 public:
  using FaultSentence::FaultSentence;

  // If no item has the name, it stands for an item whose name differs only in the case of ASCII letters. Items keep the
  // spelling with which they were made.
  FaultNumber ignoreCase() { return set(Effect::IgnoreCase); }
};

// What reading and writing have in common.
template <class Sentence>
class TransferFault : public FailingSentence<Sentence> {
 public:
  using FailingSentence<Sentence>::FailingSentence;

  // The first deliveries (or writes) of the byte stay right; the n-th and later ones are affected. Only for flipBitAt(), for
  // which times() counts passes, too. Passes are counted for each file, from 1; a new file starts again at 1.
  Sentence& fromPass(std::uint64_t n) { return this->fromRequest(n); }

  // Inverts one bit (0 is the lowest) of the byte at `offset`: of what a read delivers, or of what a write stores.
  FaultNumber flipBitAt(std::uint64_t offset, int bit = 0) {
    this->_fault.offset = offset;
    this->_fault.bit = bit;
    return this->set(Effect::FlipBit);
  }

  // Requests that cover the byte at `offset` fail with `error`.
  FaultNumber failAt(std::uint64_t offset, int error) {
    this->_fault.offset = offset;
    this->_fault.error = error;
    return this->set(Effect::FailAt);
  }

  // A request moves at most this many bytes; only longer requests are affected. Without O_DIRECT a short write shows as a
  // short write(2). A short read shows as such only for files opened under whenOpening().bypassCache(): through the page
  // cache the kernel takes it for the end of the file. With O_DIRECT (and without bypassCache()) the kernel tries the rest of
  // a short read or write through the page cache before it returns to the caller.
  FaultNumber limitTo(std::uint64_t bytes) {
    this->_fault.length = bytes;
    return this->set(Effect::LimitTo);
  }

  // Requests of descriptors with O_DIRECT fail. Opening such a descriptor, or setting the flag later, still works.
  FaultNumber refuseDirect(int error = EINVAL) {
    this->_fault.error = error;
    return this->set(Effect::RefuseDirect);
  }

  // Delays answers. The delay ends early when the fault is removed.
  FaultNumber delayBy(std::chrono::milliseconds delay) {
    this->_fault.amount = delay.count();
    return this->set(Effect::Delay);
  }
};

class ReadFault : public TransferFault<ReadFault> {
 public:
  using TransferFault::TransferFault;
};

// In the kernel's page cache, faulty writes look as if they had succeeded: only reads past the cache see what is missing or
// wrong on the medium.
class WriteFault : public TransferFault<WriteFault> {
 public:
  using TransferFault::TransferFault;

  // No file that matches grows beyond this many bytes: a write is cut there, and the next one fails with ENOSPC. Truncation
  // and allocation beyond the limit fail too, but do not count as requests of this fault.
  FaultNumber runOutOfSpaceAfter(std::uint64_t bytes) {
    _fault.length = bytes;
    return set(Effect::RunOutOfSpace);
  }

  // Bytes written into this range are acknowledged and forgotten: in a new file they read as zeros.
  FaultNumber dropRange(std::uint64_t offset, std::uint64_t length) {
    _fault.offset = offset;
    _fault.length = length;
    return set(Effect::DropRange);
  }

  // Of a write request that covers the byte at `offset`, only the first `bytes` are stored. All are acknowledged, and the
  // file gets the length that it would have with all of them.
  FaultNumber tearAt(std::uint64_t offset, std::uint64_t bytes) {
    _fault.offset = offset;
    _fault.length = bytes;
    return set(Effect::Tear);
  }
};

}  // namespace faultyfs
