#include "tools/kesp/Times.h"

#include <charconv>
#include <chrono>

namespace kesp::tool {

namespace chrono = std::chrono;

IsoText::IsoText(std::int64_t seconds) {
  const chrono::sys_seconds time{chrono::seconds{seconds}};
  const auto day = chrono::floor<chrono::days>(time);
  const chrono::year_month_day date(day);
  const chrono::hh_mm_ss clock(time - day);
  Put(0, 4, static_cast<unsigned>(static_cast<int>(date.year())));
  Put(5, 2, static_cast<unsigned>(date.month()));
  Put(8, 2, static_cast<unsigned>(date.day()));
  Put(11, 2, static_cast<unsigned>(clock.hours().count()));
  Put(14, 2, static_cast<unsigned>(clock.minutes().count()));
  Put(17, 2, static_cast<unsigned>(clock.seconds().count()));
}

void IsoText::Put(std::size_t at, std::size_t digits, unsigned number) {
  for (; digits != 0; number /= 10) m_text[at + --digits] = static_cast<char>('0' + number % 10);
}

namespace {

// Digits of exactly that many places, and a separator in front of them unless it is 0.
bool ReadNumber(std::string_view& text, char separator, std::size_t places, int& number) {
  if (separator != 0) {
    if (text.empty() || text.front() != separator) return false;
    text.remove_prefix(1);
  }
  if (text.size() < places) return false;
  const char* const end = text.data() + places;
  if (text[0] == '-' || std::from_chars(text.data(), end, number).ptr != end) return false;
  text.remove_prefix(places);
  return true;
}

std::optional<chrono::sys_days> ReadDate(std::string_view& text) {
  int year = 0;
  int month = 0;
  int day = 0;
  if (!ReadNumber(text, 0, 4, year) || !ReadNumber(text, '-', 2, month) || !ReadNumber(text, '-', 2, day)) {
    return std::nullopt;
  }
  const chrono::year_month_day date{chrono::year(year), chrono::month(static_cast<unsigned>(month)),
                                    chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;
  return chrono::sys_days{date};
}

// Z, +02:00, -0330 or nothing: how far the clock is ahead of UTC.
std::optional<chrono::minutes> ReadOffset(std::string_view text) {
  const char sign = text.empty() ? 'Z' : text.front();
  if (text.size() <= 1 && (sign == 'Z' || sign == 'z')) return chrono::minutes{0};
  int hours = 0;
  int minutes = 0;
  if ((sign != '+' && sign != '-') || !ReadNumber(text, sign, 2, hours)) return std::nullopt;
  if (!ReadNumber(text, text.starts_with(':') ? ':' : '\0', 2, minutes)) return std::nullopt;
  if (!text.empty() || hours > 23 || minutes > 59) return std::nullopt;
  const chrono::minutes offset = chrono::hours{hours} + chrono::minutes{minutes};
  return sign == '+' ? offset : -offset;
}

}  // namespace

std::optional<std::int64_t> ParseTime(std::string_view text, bool ends) {
  const auto day = ReadDate(text);
  if (!day) return std::nullopt;
  int hour = ends ? 23 : 0;
  int minute = ends ? 59 : 0;
  int second = ends ? 59 : 0;
  chrono::minutes ahead{0};
  if (!text.empty()) {
    second = 0;
    if (!ReadNumber(text, text.front() == 't' ? 't' : 'T', 2, hour) || !ReadNumber(text, ':', 2, minute)) {
      return std::nullopt;
    }
    if (text.starts_with(':') && !ReadNumber(text, ':', 2, second)) return std::nullopt;
    const auto offset = ReadOffset(text);
    if (!offset) return std::nullopt;
    ahead = *offset;
  }
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const chrono::sys_seconds time =
      *day + chrono::hours{hour} + chrono::minutes{minute} + chrono::seconds{second} - ahead;
  return time.time_since_epoch().count();
}

}  // namespace kesp::tool
