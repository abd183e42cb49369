#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/WorkerProtocol.h"

using namespace kdxoffload;

namespace {

JobOrder someOrder() {
  JobOrder order{.number = 7, .task = Task::sequence, .replaces = true, .flushes = false};
  order.folder = "CLIPS/\xff\n";
  order.identifier = "A%%_1001-1002.####.dpx";
  order.destinations = DestinationSet::only(63);
  order.items = {{.name = "A%_1001.dpx", .size = uint64_t{1} << 40, .modified = -1, .mode = 01777},
                 {.name = "A%_1002.dpx", .target = std::string("\0x", 2)}};
  return order;
}

JobResult someResult() {
  JobResult result{.number = 9, .status = 200, .reason = "why"};
  result.digests.push_back(*FileDigest::fromText("MD5:d41d8cd98f00b204e9800998ecf8427e"));
  result.items = {
      {.status = 1, .facts = {.kind = platform::ItemKind::link, .size = 3, .identity = {4, 5}}, .remark = "r"}};
  return result;
}

WorkerSetup someSetup() {
  return {.card = "/card", .destinations = {"/a", ""}, .algorithm = 16, .readBack = false, .privateFolder = ".work"};
}

std::vector<WorkerMessage> all() {
  return {someSetup(), someOrder(), someResult(), JobOrder{}, JobResult{}};
}

}  // namespace

TEST(WorkerProtocol, EveryMessageComesBackAsItWas) {
  for (const WorkerMessage& message : all()) {
    MessageReader reader;
    reader.add(encodeMessage(message));
    EXPECT_EQ(message, reader.next());
    EXPECT_EQ(std::nullopt, reader.next());
    EXPECT_FALSE(reader.isBroken());
  }
}

TEST(WorkerProtocol, MessagesThatComeByteByByteArePutTogether) {
  std::string bytes;
  for (const WorkerMessage& message : all()) bytes += encodeMessage(message);
  MessageReader reader;
  std::vector<WorkerMessage> found;
  for (const char byte : bytes) {
    reader.add(std::string_view(&byte, 1));
    while (const auto message = reader.next()) found.push_back(*message);
  }
  EXPECT_EQ(all(), found);
}

TEST(WorkerProtocol, AMessageThatIsCutOffInsideIsNone) {
  const std::string whole = encodeMessage(someOrder());
  for (std::size_t length = 5; length < whole.size(); ++length) {
    std::string cut = whole.substr(0, length);
    const auto claimed = static_cast<uint32_t>(length - 5);
    cut.replace(0, 4, reinterpret_cast<const char*>(&claimed), 4);
    MessageReader reader;
    reader.add(cut);
    EXPECT_EQ(std::nullopt, reader.next()) << length;
    EXPECT_TRUE(reader.isBroken()) << length;
  }
}

TEST(WorkerProtocol, BytesBehindTheLastFieldAreNoMessage) {
  std::string longer = encodeMessage(JobResult{}) + "x";
  ++longer[0];
  MessageReader reader;
  reader.add(longer);
  EXPECT_EQ(std::nullopt, reader.next());
  EXPECT_TRUE(reader.isBroken());
}

TEST(WorkerProtocol, AnUnknownKindAndATooLongMessageBreakTheReaderForGood) {
  for (const std::string& bytes : {std::string("\x00\x00\x00\x00\x09", 5), std::string("\xff\xff\xff\xff\x01", 5)}) {
    MessageReader reader;
    reader.add(bytes);
    EXPECT_EQ(std::nullopt, reader.next());
    EXPECT_TRUE(reader.isBroken());
    reader.add(encodeMessage(JobResult{}));
    EXPECT_EQ(std::nullopt, reader.next());
  }
}
