#include "KDXFileTools/kdxoffload/Plan.h"

#include <algorithm>

#include "platform/Text.h"

namespace kdxoffload {

Plan makePlan(const Listing& card, std::span<const PlannedDestination> destinations, const PlanWishes& /*wishes*/) {
  Plan plan;
  const DestinationSet everywhere = DestinationSet::all(destinations.size());
  plan.proved.resize(card.entries.size());
  plan.folders.resize(card.entries.size());
  plan.links.resize(card.entries.size());
  plan.room.resize(destinations.size());
  for (EntryIndex index = 0; index < card.entries.size(); ++index) {
    const Entry& entry = card.entries[index];
    if (entry.facts.kind == platform::ItemKind::folder) plan.folders[index] = everywhere;
    if (entry.facts.kind == platform::ItemKind::link) plan.links[index] = everywhere;
    if (entry.facts.kind != platform::ItemKind::file) continue;
    plan.jobs.push_back({.usesAlias = needsAlias(entry.name),
                         .first = static_cast<uint32_t>(plan.files.size()),
                         .destinations = everywhere});
    plan.files.push_back(index);
    plan.bytesToDo += entry.facts.size;
  }
  return plan;
}

bool needsAlias(std::string_view name) {
  constexpr std::size_t longest = 247;  // bytes, with the temporary extension 255
  const bool hasControls = std::ranges::any_of(name, [](char c) { return (c >= '\0' && c < ' ') || c == '\x7f'; });
  return hasControls || name.size() > longest || name.ends_with(".kdxcopy") || !platform::isUTF8(name);
}

}  // namespace kdxoffload
