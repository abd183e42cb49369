#include "tests/support/ProjectFile.h"

std::string projectFile(const std::string& name) {
  return std::string(PROJECT_FOLDER) + "/" + name;
}
