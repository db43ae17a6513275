#include <charconv>

#include "platform/propertylist/Readers.h"

namespace platform::detail {

int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) {
  // Years that begin in March, so that the leap day is the last of its year; 400 of them are an era.
  if (month <= 2) --year;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t yearOfEra = year - era * 400;
  const int64_t dayOfYear = (153 * (static_cast<int64_t>(month) + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

std::optional<Date> parseDate(std::string_view text) {
  // Digits stand for themselves, everything else is literal.
  constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
  if (text.size() != kShape.size()) return std::nullopt;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool isDigit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == '0' ? !isDigit : text[i] != kShape[i]) return std::nullopt;
  }
  const auto number = [&](size_t at, size_t size) {
    unsigned value = 0;
    std::from_chars(text.data() + at, text.data() + at + size, value);
    return value;
  };
  const unsigned year = number(0, 4), month = number(5, 2), day = number(8, 2);
  const unsigned hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
  constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (year < 1 || month < 1 || month > 12 || day < 1) return std::nullopt;
  if (day > kDays[month - 1] + (month == 2 && isLeap ? 1 : 0)) return std::nullopt;
  if (hour > 23 || minute > 59 || second > 59) return std::nullopt;
  const int64_t seconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  return Date{static_cast<double>(seconds)};
}

}  // namespace platform::detail
