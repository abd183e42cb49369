#pragma once

#include <chrono>
#include <string>

#include "KDXFileTools/kdxoffload/Database.h"

// The database at the path, which is made where there is none: to look into and to change. Waits for nobody who has locked it, and
// for no device.
inline kdxoffload::Database databaseAt(const std::string& path) {
  using kdxoffload::Database;
  Database database = Database::open(path, Database::Access::makeAndChange, std::chrono::milliseconds(0));
  database.attempt("PRAGMA synchronous = OFF");
  return database;
}
