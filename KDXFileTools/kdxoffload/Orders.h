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

// Of a job, or of a part of it that is tried again.
JobOrder orderOf(const Job& job, const Plan& plan, const Listing& card);

// What a person knows the job by: the path of its file, or folder and identifier of a sequence.
std::string shownPathOf(const Job& job, const Plan& plan, const Listing& card);

// An order and the entries that its items stand for, in the same order.
struct EntriesOrder {
  JobOrder order{};
  std::vector<EntryIndex> entries{};
};

// Of the folders to make, parents first: to be done one after the other.
std::vector<EntriesOrder> folderOrders(const std::vector<DestinationSet>& where, const Listing& card);
// Of the links to make, those of one folder together.
std::vector<EntriesOrder> linkOrders(const std::vector<DestinationSet>& where, const Listing& card);
// Of the folders whose mode and time are to be kept, the deepest first: to be done one after the other.
std::vector<EntriesOrder> keepingOrders(const std::vector<DestinationSet>& where, const Listing& card);

// Lets the owner write in those folders, whatever mode they have on the card.
void keepOpenToOwner(std::deque<EntriesOrder>& keeping);

// The same orders in the same order, each destination by itself: one that is gone fails alone.
std::deque<EntriesOrder> oneForEachDestination(const std::vector<EntriesOrder>& orders);

}  // namespace kdxoffload
