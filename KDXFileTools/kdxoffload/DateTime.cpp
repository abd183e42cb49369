#include "KDXFileTools/kdxoffload/DateTime.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>

namespace kdxoffload::DateTime {

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using Days = std::chrono::sys_days;

// A moment, taken to pieces.
struct Parts {
  std::chrono::year_month_day date{};
  std::chrono::hh_mm_ss<nanoseconds> time{};
};

Parts partsOf(int64_t moment) {
  const std::chrono::sys_time<nanoseconds> time{nanoseconds(moment)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  return {.date = day, .time = std::chrono::hh_mm_ss<nanoseconds>(time - day)};
}

std::string dateText(const Parts& parts) {
  return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(parts.date.year()),
                     static_cast<unsigned>(parts.date.month()), static_cast<unsigned>(parts.date.day()));
}

// Takes pieces from the front of a text. Once one is not there, nothing is.
class Pieces {
 public:
  explicit Pieces(std::string_view text) : _rest(text) {}

  // A number of exactly so many digits.
  int number(std::size_t digits) {
    const std::string_view piece = _rest.substr(0, digits);
    int value = 0;
    const bool isNumber = piece.size() == digits && isDigits(piece);
    if (isNumber) std::from_chars(piece.data(), piece.data() + piece.size(), value);
    _isWhole = _isWhole && isNumber;
    _rest.remove_prefix(piece.size());
    return value;
  }
  void letter(char letter) { _isWhole = takes(letter) && _isWhole; }
  bool takes(char letter) {
    if (!_rest.starts_with(letter)) return false;
    _rest.remove_prefix(1);
    return true;
  }
  // Of a second; what is less than a nanosecond is dropped.
  nanoseconds fraction() {
    const std::size_t end = _rest.find_first_not_of("0123456789");
    std::string digits(_rest.substr(0, end));
    _isWhole = _isWhole && !digits.empty();
    _rest.remove_prefix(digits.size());
    constexpr std::size_t places = 9;
    digits.resize(places, '0');
    return nanoseconds(std::stoi(digits));
  }
  [[nodiscard]] bool isAtEnd() const { return _isWhole && _rest.empty(); }

 private:
  static bool isDigits(std::string_view text) { return text.find_first_not_of("0123456789") == std::string_view::npos; }

  std::string_view _rest;
  bool _isWhole = true;
};

// East of Greenwich.
seconds zoneFrom(Pieces& pieces) {
  if (pieces.takes('Z')) return seconds(0);
  const bool isEast = pieces.takes('+');
  if (!isEast) pieces.letter('-');
  const std::chrono::hours hours(pieces.number(2));
  pieces.letter(':');
  const seconds zone = hours + std::chrono::minutes(pieces.number(2));
  return isEast ? zone : -zone;
}

// Those whose nanoseconds can be counted.
bool isCountable(const std::chrono::year_month_day& date) {
  using std::chrono::year;
  return date.ok() && date.year() >= year(1678) && date.year() <= year(2261);
}

}  // namespace

std::string text(int64_t moment) {
  const Parts parts = partsOf(moment);
  std::string text = fmt::format("{}T{:02}:{:02}:{:02}", dateText(parts), parts.time.hours().count(),
                                 parts.time.minutes().count(), parts.time.seconds().count());
  const auto micro = std::chrono::duration_cast<std::chrono::microseconds>(parts.time.subseconds()).count();
  if (micro != 0) text += fmt::format(".{:06}", micro);
  return text + "+00:00";
}

std::optional<int64_t> fromText(std::string_view text) {
  using namespace std::chrono;
  Pieces pieces(text);
  const year aYear(pieces.number(4));
  pieces.letter('-');
  const month aMonth(static_cast<unsigned>(pieces.number(2)));
  pieces.letter('-');
  const year_month_day date(aYear, aMonth, day(static_cast<unsigned>(pieces.number(2))));
  pieces.letter('T');
  const hours hour(pieces.number(2));
  pieces.letter(':');
  const minutes minute(pieces.number(2));
  pieces.letter(':');
  const seconds second(pieces.number(2));
  const nanoseconds fraction = pieces.takes('.') ? pieces.fraction() : nanoseconds(0);
  const seconds zone = zoneFrom(pieces);
  if (!pieces.isAtEnd() || !isCountable(date) || hour > 24h || minute >= 60min || second > 60s) return std::nullopt;
  return nanoseconds(sys_days(date).time_since_epoch() + hour + minute + second - zone + fraction).count();
}

std::string inFileNames(int64_t moment) {
  const Parts parts = partsOf(moment);
  return fmt::format("{}_{:02}{:02}{:02}Z", dateText(parts), parts.time.hours().count(), parts.time.minutes().count(),
                     parts.time.seconds().count());
}

}  // namespace kdxoffload::DateTime
