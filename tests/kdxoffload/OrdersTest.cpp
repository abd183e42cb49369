#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/Orders.h"

using namespace kdxoffload;

namespace {

using platform::ItemKind;

Entry entry(EntryIndex parent, std::string name, ItemKind kind, uint64_t size = 0) {
  return {
      .parent = parent, .name = std::move(name), .facts = {.kind = kind, .mode = 0644, .size = size, .modified = 5}};
}

Listing someCard() {
  Listing card;
  card.entries = {entry(Entry::root, "A", ItemKind::folder), entry(0, "B", ItemKind::folder),
                  entry(1, "f_1", ItemKind::file, 10),       entry(1, "f_2", ItemKind::file, 20),
                  entry(Entry::root, "l", ItemKind::link),   entry(0, "m", ItemKind::link)};
  card.linkTargets = {{4, "A"}, {5, "B/f_1"}};
  return card;
}

std::vector<std::string> names(const JobOrder& order) {
  std::vector<std::string> found;
  for (const OrderedItem& item : order.items) found.push_back(item.name);
  return found;
}

using testing::ElementsAre;

}  // namespace

TEST(Orders, AJobOfOneFileNamesItInItsFolder) {
  Plan plan;
  plan.files = {3};
  const Job job{.replaces = true, .destinations = DestinationSet::only(1)};
  const JobOrder order = orderOf(job, plan, someCard());
  EXPECT_EQ(Task::copy, order.task);
  EXPECT_TRUE(order.replaces);
  EXPECT_EQ("A/B", order.folder);
  EXPECT_EQ(DestinationSet::only(1), order.destinations);
  ASSERT_EQ(1U, order.items.size());
  EXPECT_EQ((OrderedItem{.name = "f_2", .size = 20, .modified = 5, .mode = 0644}), order.items[0]);
  EXPECT_EQ("A/B/f_2", shownPathOf(job, plan, someCard()));
}

TEST(Orders, AJobOfASequenceHasItsFramesAndItsIdentifier) {
  Plan plan;
  plan.files = {2, 3};
  plan.sequences = {"f_1-2.#"};
  const Job job{.count = 2, .sequence = 0};
  const JobOrder order = orderOf(job, plan, someCard());
  EXPECT_EQ(Task::sequence, order.task);
  EXPECT_EQ("f_1-2.#", order.identifier);
  EXPECT_THAT(names(order), ElementsAre("f_1", "f_2"));
  EXPECT_EQ("A/B/f_1-2.#", shownPathOf(job, plan, someCard()));
}

TEST(Orders, FoldersComeBeforeWhatIsInThemWhenTheyAreMadeAndBehindItWhenTheyAreKept) {
  const std::vector<DestinationSet> where(6, DestinationSet::all(2));
  const Listing card = someCard();
  std::vector<DestinationSet> folders(6);
  folders[0] = folders[1] = DestinationSet::all(2);
  const auto making = folderOrders(folders, card);
  ASSERT_EQ(1U, making.size());
  EXPECT_THAT(names(making[0].order), ElementsAre("A", "A/B"));
  EXPECT_THAT(making[0].entries, ElementsAre(0, 1));
  const auto keeping = keepingOrders(folders, card);
  ASSERT_EQ(1U, keeping.size());
  EXPECT_THAT(names(keeping[0].order), ElementsAre("A/B", "A"));
}

TEST(Orders, FoldersForOtherDestinationsAreAnotherOrder) {
  std::vector<DestinationSet> folders(6);
  folders[0] = DestinationSet::only(0);
  folders[1] = DestinationSet::all(2);
  EXPECT_EQ(2U, folderOrders(folders, someCard()).size());
}

TEST(Orders, LinksCarryTheirTargets) {
  const auto orders = linkOrders(std::vector<DestinationSet>(6, DestinationSet::all(1)), someCard());
  ASSERT_EQ(2U, orders.size());
  EXPECT_EQ("", orders[0].order.folder);
  EXPECT_EQ("A", orders[0].order.items.at(0).target);
  EXPECT_EQ("A", orders[1].order.folder);
  EXPECT_EQ("m", orders[1].order.items.at(0).name);
}

TEST(Orders, ThousandsOfFoldersAreManyOrders) {
  Listing card;
  for (int number = 0; number < 3000; ++number) {
    card.entries.push_back(entry(Entry::root, std::to_string(number), ItemKind::folder));
  }
  std::size_t folders = 0;
  const auto orders = folderOrders(std::vector<DestinationSet>(3000, DestinationSet::all(1)), card);
  for (const EntriesOrder& order : orders) folders += order.entries.size();
  EXPECT_EQ(3000U, folders);
  EXPECT_GT(orders.size(), 3U);
}

TEST(Orders, EachDestinationIsGivenItsOrdersByItself) {
  std::vector<DestinationSet> folders(6);
  folders[0] = DestinationSet::all(2);
  folders[1] = DestinationSet::only(1);
  const auto apart = oneForEachDestination(folderOrders(folders, someCard()));
  ASSERT_EQ(3U, apart.size());
  EXPECT_EQ(DestinationSet::only(0), apart[0].order.destinations);
  EXPECT_EQ(DestinationSet::only(1), apart[1].order.destinations);
  EXPECT_EQ(apart[0].entries, apart[1].entries);
  EXPECT_EQ(DestinationSet::only(1), apart[2].order.destinations);
}
