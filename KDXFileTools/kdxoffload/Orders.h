#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "KDXFileTools/kdxoffload/Listing.h"
#include "KDXFileTools/kdxoffload/Plan.h"

namespace kdxoffload {

// The orders that a plan's parts become. Functions of values; numbers are given by the caller.

// The order of a job, or of a part of it that is tried again.
JobOrder orderOf(const Job& job, const Plan& plan, const Listing& card);

// The path of the job for a person: that of its file, or folder and identifier of a sequence.
std::string shownPathOf(const Job& job, const Plan& plan, const Listing& card);

// An order and the entries that its items stand for, in the same order.
struct EntriesOrder {
  JobOrder order{};
  std::vector<EntryIndex> entries{};
};

// The orders that make folders, parents first. To be done one after the other.
std::vector<EntriesOrder> folderOrders(const std::vector<DestinationSet>& where, const Listing& card);
// The orders that make links, those of one folder together.
std::vector<EntriesOrder> linkOrders(const std::vector<DestinationSet>& where, const Listing& card);
// The orders that set mode and time of folders, the deepest first. To be done one after the other.
std::vector<EntriesOrder> keepingOrders(const std::vector<DestinationSet>& where, const Listing& card);

// The same orders in the same order, each destination by itself: one that is gone fails alone.
std::deque<EntriesOrder> oneForEachDestination(const std::vector<EntriesOrder>& orders);

}  // namespace kdxoffload
