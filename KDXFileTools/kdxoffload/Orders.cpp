#include "KDXFileTools/kdxoffload/Orders.h"

#include <utility>

namespace kdxoffload {

namespace {

// An order has up to so many items, and so many bytes of names (but for a single one that has more).
constexpr std::size_t mostItems = 512;
constexpr std::size_t mostBytes = std::size_t{1} << 20;

OrderedItem itemOf(const Listing& card, EntryIndex index, std::string name) {
  const platform::ItemFacts& facts = card.entries[index].facts;
  return {.name = std::move(name), .size = facts.size, .modified = facts.modified, .mode = facts.mode};
}

// Gathers items that may share an order.
class Gatherer {
 public:
  explicit Gatherer(Task task) : _task(task) {}

  void add(EntryIndex entry, OrderedItem item, const std::string& folder, DestinationSet destinations) {
    if (needsAnother(item, folder, destinations)) {
      _orders.push_back({.order = {.task = _task, .folder = folder, .destinations = destinations}});
      _bytes = 0;
    }
    _bytes += item.name.size() + item.target.size();
    _orders.back().order.items.push_back(std::move(item));
    _orders.back().entries.push_back(entry);
  }
  [[nodiscard]] std::vector<EntriesOrder> take() { return std::move(_orders); }

 private:
  [[nodiscard]] bool needsAnother(const OrderedItem& item, const std::string& folder, DestinationSet where) const {
    if (_orders.empty()) return true;
    const JobOrder& last = _orders.back().order;
    const bool isFull = last.items.size() >= mostItems || _bytes + item.name.size() > mostBytes;
    return isFull || last.folder != folder || last.destinations != where;
  }

  Task _task;
  std::vector<EntriesOrder> _orders;
  std::size_t _bytes = 0;
};

bool isWanted(const std::vector<DestinationSet>& where, EntryIndex index) {
  return index < where.size() && !where[index].empty();
}

Task taskOf(const Job& job) {
  if (job.kind == JobKind::compare) return Task::compare;
  return job.sequence == Job::noSequence ? Task::copy : Task::sequence;
}

}  // namespace

JobOrder orderOf(const Job& job, const Plan& plan, const Listing& card) {
  JobOrder order{.task = taskOf(job),
                 .replaces = job.replaces,
                 .usesAlias = job.usesAlias,
                 .folder = card.folderOf(plan.files[job.first]),
                 .destinations = job.destinations};
  if (job.sequence != Job::noSequence) order.identifier = plan.sequences[job.sequence];
  for (const EntryIndex file : plan.filesOf(job)) order.items.push_back(itemOf(card, file, card.entries[file].name));
  return order;
}

std::string shownPathOf(const Job& job, const Plan& plan, const Listing& card) {
  const EntryIndex first = plan.files[job.first];
  if (job.sequence == Job::noSequence) return card.pathOf(first);
  const std::string folder = card.folderOf(first);
  return folder.empty() ? plan.sequences[job.sequence] : folder + '/' + plan.sequences[job.sequence];
}

std::vector<EntriesOrder> folderOrders(const std::vector<DestinationSet>& where, const Listing& card) {
  Gatherer gatherer(Task::makeFolders);
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    if (isWanted(where, index)) gatherer.add(index, itemOf(card, index, card.pathOf(index)), "", where[index]);
  }
  return gatherer.take();
}

std::vector<EntriesOrder> linkOrders(const std::vector<DestinationSet>& where, const Listing& card) {
  Gatherer gatherer(Task::makeLinks);
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    const auto target = card.linkTargets.find(index);
    if (!isWanted(where, index) || target == card.linkTargets.end()) continue;
    OrderedItem item = itemOf(card, index, card.entries[index].name);
    item.target = target->second;
    gatherer.add(index, std::move(item), card.folderOf(index), where[index]);
  }
  return gatherer.take();
}

std::vector<EntriesOrder> keepingOrders(const std::vector<DestinationSet>& where, const Listing& card) {
  Gatherer gatherer(Task::keepFolders);
  for (EntryIndex left = static_cast<EntryIndex>(card.entries.size()); left > 0; --left) {
    const EntryIndex index = left - 1;
    if (isWanted(where, index)) gatherer.add(index, itemOf(card, index, card.pathOf(index)), "", where[index]);
  }
  return gatherer.take();
}

std::deque<EntriesOrder> oneForEachDestination(const std::vector<EntriesOrder>& orders) {
  std::deque<EntriesOrder> apart;
  for (const EntriesOrder& order : orders) {
    for (std::size_t position = 0; position < DestinationSet::most; ++position) {
      if (!order.order.destinations.contains(position)) continue;
      apart.push_back(order);
      apart.back().order.destinations = DestinationSet::only(position);
    }
  }
  return apart;
}

}  // namespace kdxoffload
