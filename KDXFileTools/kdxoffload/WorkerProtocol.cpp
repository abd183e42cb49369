#include "KDXFileTools/kdxoffload/WorkerProtocol.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace kdxoffload {

namespace {

enum class Kind : uint8_t { setup = 1, order = 2, result = 3 };

constexpr std::size_t headerLength = 5;  // four bytes of length, one of kind

// Both ends are the same program on the same machine: numbers go as they lie in memory. The fields of a value are named once,
// by `fields` below, for writing and for reading.
class Writer {
 public:
  template <typename Number>
  requires std::is_arithmetic_v<Number> || std::is_enum_v<Number>
  void operator()(const Number& number) {
    const auto* const bytes = reinterpret_cast<const char*>(&number);
    _bytes.append(bytes, sizeof number);
  }
  void operator()(const std::string& text) {
    (*this)(static_cast<uint32_t>(text.size()));
    _bytes += text;
  }
  void operator()(DestinationSet set) { (*this)(set.bits()); }
  void operator()(const FileDigest& digest) {
    (*this)(digest.algorithm);
    for (const uint8_t byte : digest.bytes) (*this)(byte);
  }
  template <typename Value>
  void operator()(const std::vector<Value>& values) {
    (*this)(static_cast<uint32_t>(values.size()));
    for (const Value& value : values) (*this)(value);
  }
  template <typename Value>
  requires std::is_class_v<Value>
  void operator()(const Value& value) { fields(value, *this); }
  [[nodiscard]] const std::string& bytes() const { return _bytes; }

 private:
  std::string _bytes;
};

// What is not there, or makes no sense, makes it fail; values read from then on mean nothing.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : _bytes(bytes) {}

  template <typename Number>
  requires std::is_arithmetic_v<Number>
  void operator()(Number& number) {
    const std::string_view bytes = take(sizeof number);
    if (!_failed) std::memcpy(&number, bytes.data(), sizeof number);
  }
  void operator()(bool& flag) {
    uint8_t number = 0;
    (*this)(number);
    _failed = _failed || number > 1;
    flag = number == 1;
  }
  void operator()(Task& task) { readEnumeration(task, Task::clean); }
  void operator()(platform::ItemKind& kind) { readEnumeration(kind, platform::ItemKind::other); }
  void operator()(std::string& text) { text = take(readCount()); }
  void operator()(DestinationSet& set) {
    uint64_t bits = 0;
    (*this)(bits);
    set = DestinationSet::fromBits(bits);
  }
  void operator()(FileDigest& digest) {
    (*this)(digest.algorithm);
    for (uint8_t& byte : digest.bytes) (*this)(byte);
  }
  template <typename Value>
  void operator()(std::vector<Value>& values) {
    // Grows with what is there, never by what a count claims.
    for (uint32_t left = readCount(); left > 0 && !_failed; --left) (*this)(values.emplace_back());
  }
  template <typename Value>
  requires std::is_class_v<Value>
  void operator()(Value& value) { fields(value, *this); }
  [[nodiscard]] bool isAtEnd() const { return !_failed && _bytes.empty(); }

 private:
  std::string_view take(std::size_t length) {
    _failed = _failed || length > _bytes.size();
    if (_failed) return {};
    const std::string_view taken = _bytes.substr(0, length);
    _bytes.remove_prefix(length);
    return taken;
  }
  uint32_t readCount() {
    uint32_t count = 0;
    (*this)(count);
    return count;
  }
  template <typename Enumeration>
  void readEnumeration(Enumeration& value, Enumeration last) {
    uint8_t number = 0;
    (*this)(number);
    _failed = _failed || number > static_cast<uint8_t>(last);
    if (!_failed) value = static_cast<Enumeration>(number);
  }

  std::string_view _bytes;
  bool _failed = false;
};

template <typename Value, typename Wanted>
concept SameAs = std::is_same_v<std::remove_const_t<Value>, Wanted>;

template <SameAs<WorkerSetup> Setup, typename Visitor>
void fields(Setup& setup, Visitor& visit) {
  visit(setup.card);
  visit(setup.destinations);
  visit(setup.algorithm);
  visit(setup.readBack);
  visit(setup.privateFolder);
}

template <SameAs<OrderedItem> Item, typename Visitor>
void fields(Item& item, Visitor& visit) {
  visit(item.name);
  visit(item.target);
  visit(item.size);
  visit(item.modified);
  visit(item.mode);
}

template <SameAs<JobOrder> Order, typename Visitor>
void fields(Order& order, Visitor& visit) {
  visit(order.number);
  visit(order.task);
  visit(order.replaces);
  visit(order.usesAlias);
  visit(order.flushes);
  visit(order.folder);
  visit(order.identifier);
  visit(order.destinations);
  visit(order.items);
}

template <SameAs<platform::ItemFacts> Facts, typename Visitor>
void fields(Facts& facts, Visitor& visit) {
  visit(facts.kind);
  visit(facts.mode);
  visit(facts.size);
  visit(facts.modified);
  visit(facts.identity.device);
  visit(facts.identity.inode);
}

template <SameAs<ItemResult> Result, typename Visitor>
void fields(Result& result, Visitor& visit) {
  visit(result.status);
  visit(result.facts);
  visit(result.remark);
}

template <SameAs<JobResult> Result, typename Visitor>
void fields(Result& result, Visitor& visit) {
  visit(result.number);
  visit(result.status);
  visit(result.reason);
  visit(result.digests);
  visit(result.items);
}

Kind kindOf(const WorkerMessage& message) {
  return static_cast<Kind>(message.index() + 1);
}

template <typename Message>
std::optional<WorkerMessage> read(std::string_view bytes) {
  Message message;
  Reader reader(bytes);
  reader(message);
  return reader.isAtEnd() ? std::optional<WorkerMessage>(std::move(message)) : std::nullopt;
}

std::optional<WorkerMessage> read(Kind kind, std::string_view bytes) {
  if (kind == Kind::setup) return read<WorkerSetup>(bytes);
  if (kind == Kind::order) return read<JobOrder>(bytes);
  if (kind == Kind::result) return read<JobResult>(bytes);
  return std::nullopt;
}

}  // namespace

std::string encodeMessage(const WorkerMessage& message) {
  Writer body;
  std::visit([&body](const auto& value) { body(value); }, message);
  Writer whole;
  whole(static_cast<uint32_t>(body.bytes().size()));
  whole(kindOf(message));
  return whole.bytes() + body.bytes();
}

std::optional<WorkerMessage> MessageReader::next() {
  if (_isBroken || _bytes.size() < headerLength) return std::nullopt;
  uint32_t length = 0;
  std::memcpy(&length, _bytes.data(), sizeof length);
  _isBroken = length > longestMessage;
  if (_isBroken || _bytes.size() - headerLength < length) return std::nullopt;
  const auto kind = static_cast<Kind>(_bytes[sizeof length]);
  std::optional<WorkerMessage> message = read(kind, std::string_view(_bytes).substr(headerLength, length));
  _isBroken = !message;
  _bytes.erase(0, headerLength + length);
  return message;
}

}  // namespace kdxoffload
