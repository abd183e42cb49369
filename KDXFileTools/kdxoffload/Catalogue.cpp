#include "KDXFileTools/kdxoffload/Catalogue.h"

namespace kdxoffload {

struct Catalogue::Database {
  std::optional<std::string> problem = "there is no catalogue yet";
};

Catalogue::Catalogue(std::unique_ptr<Database> database) : _database(std::move(database)) {}
Catalogue::Catalogue(Catalogue&&) noexcept = default;
Catalogue& Catalogue::operator=(Catalogue&&) noexcept = default;
Catalogue::~Catalogue() = default;

Catalogue Catalogue::open(const std::string& /*path*/) {
  return Catalogue(std::make_unique<Database>());
}

Catalogue Catalogue::openForReading(const std::string& path) {
  return open(path);
}

std::optional<std::string> Catalogue::defaultPath() {
  return std::nullopt;
}

const std::optional<std::string>& Catalogue::problem() const {
  return _database->problem;
}

void Catalogue::startOffload(const std::string& /*card*/, const std::vector<std::string>& /*destinations*/,
                             int64_t /*started*/) {}

void Catalogue::endOffload(const OffloadRecord& /*outcome*/) {}

std::vector<FileRecord> Catalogue::recordsOf(const std::string& /*destination*/, const Listing& card) const {
  return std::vector<FileRecord>(card.entries.size());
}

void Catalogue::begin(std::span<const FileOfRecord> /*files*/) {}

void Catalogue::prove(std::span<const FileOfRecord> /*files*/) {}

void Catalogue::forget(std::span<const FileOfRecord> /*files*/) {}

std::vector<OffloadRecord> Catalogue::history() const {
  return {};
}

std::vector<std::string> Catalogue::destinationsOf(const std::string& /*card*/) const {
  return {};
}

}  // namespace kdxoffload
