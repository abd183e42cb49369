#include "platform/Processors.h"

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <thread>

namespace platform {

namespace {

constexpr double unlimited = std::numeric_limits<double>::infinity();

// All processors if the system does not say which ones may be used, for example because there are more than a set can hold.
double processorsOfAffinity() {
  cpu_set_t all;
  return ::sched_getaffinity(0, sizeof all, &all) == 0 ? CPU_COUNT(&all) : std::thread::hardware_concurrency();
}

// "QUOTA PERIOD" in microseconds. A quota that is not a number, or not positive, means no limit.
double processorsOfQuota(const std::string& text) {
  std::istringstream words(text);
  double quota = 0;
  double period = 0;
  return words >> quota >> period && quota > 0 && period > 0 ? quota / period : unlimited;
}

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// One version of control groups keeps the two numbers in one file, the other one in two files.
double processorsOfGroup(const std::string& folder) {
  return std::min(
      processorsOfQuota(firstLine(folder + "/cpu.max")),
      processorsOfQuota(firstLine(folder + "/cpu.cfs_quota_us") + " " + firstLine(folder + "/cpu.cfs_period_us")));
}

bool controlsProcessors(const std::string& controllers) {
  return controllers.empty() || ("," + controllers + ",").find(",cpu,") != std::string::npos;
}

// A line of the process's groups: "NUMBER:CONTROLLERS:PATH", without controllers in the second version.
double processorsOfGroupLine(const std::string& line, const std::string& root) {
  std::istringstream parts(line);
  std::string number;
  std::string controllers;
  std::string path;
  std::getline(std::getline(std::getline(parts, number, ':'), controllers, ':'), path);
  if (path.empty() || !controlsProcessors(controllers)) return unlimited;
  const std::string groups = root + "/sys/fs/cgroup" + (controllers.empty() ? "" : "/cpu");
  double processors = processorsOfGroup(groups);
  for (; path.size() > 1; path.resize(path.rfind('/'))) {
    processors = std::min(processors, processorsOfGroup(groups + path));
    if (path.rfind('/') == std::string::npos) break;
  }
  return processors;
}

}  // namespace

std::size_t usableProcessors() {
  return usableProcessors("");
}

std::size_t usableProcessors(const std::string& root) {
  double processors = processorsOfAffinity();
  std::ifstream groups(root + "/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    processors = std::min(processors, processorsOfGroupLine(line, root));
  }
  return static_cast<std::size_t>(std::max(1.0, std::ceil(processors)));
}

}  // namespace platform
