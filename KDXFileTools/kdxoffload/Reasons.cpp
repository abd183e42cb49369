#include "KDXFileTools/kdxoffload/Reasons.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxoffload/JobOrder.h"

namespace kdxoffload {

namespace {

namespace JobStatus = ::ExitStatus;  // of the first program

struct Explanation {
  int status;
  std::string_view reason;
  std::string_view advice;
};

constexpr std::string_view goOn = "Run the same command again.";
constexpr std::string_view replaceDestination =
    "Run the same command again. If it happens once more, the destination's device, cable or memory has to be "
    "replaced.";
constexpr std::string_view clearTheName = "Move what stands there away, and run the same command again.";
constexpr std::string_view wayOut = "Make the destination readable and writable, and run the same command again.";
constexpr std::string_view compareByHand =
    "Find out which of the two is wanted. If it is the card's, run the same command again with --replace.";

constexpr std::array explanations{
    Explanation{JobStatus::failure, "its job failed without a reason of its own", goOn},
    Explanation{JobStatus::externalHashDiffers, "its digest is another one than was expected", goOn},
    Explanation{JobStatus::sizeDiffers, "a copy has another size than the card's file", replaceDestination},
    Explanation{JobStatus::destinationDigestDiffers, "a copy reads differently than the card's file",
                replaceDestination},
    Explanation{JobStatus::flushFailed, "it could not be made permanent",
                "The destination's device did not take what was written: replace it."},
    Explanation{JobStatus::temporaryFileNotCreated, "its temporary file could not be made",
                "Look for room and rights at the destination, and for something else with that name."},
    Explanation{JobStatus::fileNotReadable, "it could not be opened for reading",
                "Bring the card or the destination back, or mend its rights, and run the same command again."},
    Explanation{JobStatus::finalNameTaken, "its name is taken at the destination", clearTheName},
    Explanation{JobStatus::writeFailed, "writing it failed, or a frame could not be read",
                "Full, removed or broken: make room at the destination or replace it, and look after the card."},
    Explanation{JobStatus::sourceReadFailed, "the card's file could not be read",
                "Try the card in another reader, and run the same command again."},
    Explanation{JobStatus::verificationFailed, "the card's file did not read the same twice",
                "Do not trust this card, its reader or its cable: try others, and run the same command again."},
    Explanation{JobStatus::assertionFailed, "its job ended in a way that must not be", goOn},
    Explanation{WorkStatus::differs, "what stands at the destination is not what the card holds", compareByHand},
    Explanation{WorkStatus::inTheWay, "something else stands at its name", clearTheName},
    Explanation{WorkStatus::notKept, "it, its time or its mode could not be made permanent", replaceDestination},
    Explanation{WorkStatus::notReachable, "its folder can't be reached", wayOut},
    Explanation{WorkStatus::systemError, "the system refused a step", wayOut},
    Explanation{
        WorkStatus::stalled, "its job did nothing for too long and was ended",
        "Look after the card and the destination: one of them does not answer. Then run the same command again."},
    Explanation{WorkStatus::sourceChanged, "the card's file is not the one that was listed",
                "Let nobody write to the card, and run the same command again."},
    Explanation{WorkStatus::cardsOwnFile, "what stands at the destination is the card's file itself",
                "Give a destination that does not lead back to the card."},
};

const Explanation* explanationOf(int status) {
  const auto found = std::ranges::find(explanations, status, &Explanation::status);
  return found == explanations.end() ? nullptr : &*found;
}

// A process that a signal ended has this much more than the signal's number.
constexpr int signalled = 128;
constexpr int lastSignal = 64;

bool isSignal(int status) {
  return status > signalled && status <= signalled + lastSignal;
}

}  // namespace

std::string reasonForStatus(int status) {
  if (const Explanation* known = explanationOf(status)) return std::string(known->reason);
  if (isSignal(status)) return fmt::format("its job was ended by signal {}", status - signalled);
  if (status > 1 && status < signalled) {
    return fmt::format("a file in its way could not be removed or replaced: {}",
                       std::generic_category().message(status));
  }
  return fmt::format("its job ended with the unknown status {}", status);
}

std::string adviceForStatus(int status) {
  if (const Explanation* known = explanationOf(status)) return std::string(known->advice);
  if (isSignal(status) || status <= 1 || status >= signalled) return std::string(goOn);
  return std::string(clearTheName);
}

std::string reasonForObstacle(Obstacle obstacle) {
  switch (obstacle) {
    case Obstacle::changedSinceProved:
      return "the card's file is another one than was proved here before";
    case Obstacle::folderInTheWay:
      return "a folder stands at its name";
    case Obstacle::linkInTheWay:
      return "a symbolic link stands at its name";
    case Obstacle::otherInTheWay:
      return "something that is no file stands at its name";
    case Obstacle::fileInTheWay:
      return "a file stands at its name";
    case Obstacle::differentLink:
      return "a symbolic link that leads elsewhere stands at its name";
    case Obstacle::cardsOwnFile:
      return reasonForStatus(WorkStatus::cardsOwnFile);
    case Obstacle::sameNameTwice:
      return "the destination takes another entry of the card for the same name";
    case Obstacle::notWritable:
      return "the destination can't be written";
    case Obstacle::insideObstacle:
      return "a folder on the way to it can't be made";
  }
  return "it can't be had at the destination";
}

std::string adviceForObstacle(Obstacle obstacle) {
  switch (obstacle) {
    case Obstacle::changedSinceProved:
      return std::string(compareByHand);
    case Obstacle::cardsOwnFile:
      return adviceForStatus(WorkStatus::cardsOwnFile);
    case Obstacle::sameNameTwice:
      return "Offload the card to a file system that keeps both names apart.";
    case Obstacle::notWritable:
      return std::string(wayOut);
    default:
      return std::string(clearTheName);
  }
}

}  // namespace kdxoffload
