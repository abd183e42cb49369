#include "tests/support/CardOffload.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "platform/FileDescriptor.h"

namespace fs = std::filesystem;

CardOffload::CardOffload() {
  for (const char* folder : {"card", "state"}) fs::create_directories(scratch.path() / folder);
}

void CardOffload::fillCard() const {
  for (const char* clip : {"A001.mov", "A002.mov"}) {
    const auto seed = static_cast<uint32_t>(clip[3]);
    writeFile(scratch.file(std::string("card/CLIPS/") + clip), mediaBytes(5 * MiB + seed, seed));
  }
  for (int frame = 998; frame <= 1003; ++frame) {
    writeFile(scratch.file("card/FRAMES/shot_%_" + std::to_string(100000 + frame).substr(1) + ".dpx"),
              mediaBytes(100 * KiB, static_cast<uint32_t>(frame)));
  }
  for (const char* name : {"notes.txt", ".hidden", "empty", "-f", "x.kdxcopy", "line\nhash MD5:0", "\xff\xfe"}) {
    writeFile(scratch.file(std::string("card/SMALL/") + name), name[0] == 'e' ? "" : name);
  }
  writeFile(scratch.file("card/SMALL/" + std::string(255, 'n')), "long");
  fs::create_directories(path("card/VOID/DEEPER"));
  fs::create_symlink("../../etc", path("card/SMALL/link"));
  fs::permissions(path("card/SMALL/notes.txt"), fs::perms::owner_read);
  fs::permissions(path("card/VOID"), fs::perms::owner_all);
}

ToolStart CardOffload::start(std::vector<std::string> arguments) const {
  return {.arguments = std::move(arguments),
          .program = offloadToolPath(),
          .workingDirectory = scratch.path(),
          .environment = {{"XDG_STATE_HOME", path("state")}}};
}

std::vector<std::string> CardOffload::everythingIn(const std::string& folder) const {
  std::vector<std::string> lines;
  for (const auto& entry : fs::recursive_directory_iterator(scratch.path() / folder)) {
    struct stat facts = {};
    EXPECT_EQ(0, ::lstat(entry.path().c_str(), &facts));
    std::string line = fmt::format("{} {:o} {}.{:09}", fs::relative(entry.path(), scratch.path() / folder).string(),
                                   facts.st_mode, facts.st_mtim.tv_sec, facts.st_mtim.tv_nsec);
    if (entry.is_symlink()) {
      line += fmt::format(" to {}", fs::read_symlink(entry.path()).string());
    } else if (entry.is_regular_file()) {
      line += fmt::format(" {}", digestByProgram("md5sum", entry.path()));
    }
    lines.push_back(line);
  }
  std::ranges::sort(lines);
  return lines;
}

void CardOffload::waitForFile(const std::string& file) {
  while (!fs::exists(file)) ::sched_yield();
}

void CardOffload::waitForLock(const std::string& folder) const {
  const platform::FileDescriptor descriptor(::open(path(folder).c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(0, ::flock(descriptor.get(), LOCK_EX));
}

std::vector<std::string> withoutManifests(const std::vector<std::string>& names) {
  static const std::regex manifest(
      "ascmhl(/ascmhl_chain[.]xml|/[0-9]{4}_[^/]*_[0-9]{4}-[0-9]{2}-[0-9]{2}_[0-9]{6}Z[.]mhl)?( .*)?");
  std::vector<std::string> others;
  for (const std::string& name : names) {
    if (name.starts_with("ascmhl")) {
      EXPECT_TRUE(std::regex_match(name, manifest)) << name;
    } else {
      others.push_back(name);
    }
  }
  return others;
}

std::string lastLine(const ToolRun& run) {
  return run.lines().empty() ? "" : run.lines().back();
}
