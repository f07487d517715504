// The small value types of the ASC MHL model: process and action names, dates, errors.
#include <cstdio>
#include <string>

#include "corvane/MhlManifest.hpp"
#include "corvane/MhlXml.hpp"
#include "util/Fatal.hpp"

namespace corvane {

std::string_view mhlProcessName(MhlProcess process) {
  switch (process) {
    case MhlProcess::inPlace:
      return "in-place";
    case MhlProcess::transfer:
      return "transfer";
    case MhlProcess::flatten:
      return "flatten";
  }
  detail::fatalInvalidValue("MhlProcess", "not a process", static_cast<std::uint64_t>(process));
}

std::optional<MhlProcess> mhlProcessFromName(std::string_view name) {
  if (name == "in-place") return MhlProcess::inPlace;
  if (name == "transfer") return MhlProcess::transfer;
  if (name == "flatten") return MhlProcess::flatten;
  return std::nullopt;
}

std::string_view mhlHashActionName(MhlHashAction action) {
  switch (action) {
    case MhlHashAction::original:
      return "original";
    case MhlHashAction::verified:
      return "verified";
    case MhlHashAction::failed:
      return "failed";
  }
  detail::fatalInvalidValue("MhlHashAction", "not an action", static_cast<std::uint64_t>(action));
}

std::optional<MhlHashAction> mhlHashActionFromName(std::string_view name) {
  if (name == "original") return MhlHashAction::original;
  if (name == "verified") return MhlHashAction::verified;
  if (name == "failed") return MhlHashAction::failed;
  return std::nullopt;
}

namespace {

// The fields of an XML Schema 1.0 dateTime (XML Schema Part 2, 3.2.7):
// '-'? yyyy '-' mm '-' dd 'T' hh ':' mm ':' ss ('.' s+)? ((('+' | '-') hh ':' mm) | 'Z')?
struct DateTimeFields {
  long long year = 0;
  unsigned month = 0, day = 0, hour = 0, minute = 0, second = 0;
  long long nanoseconds = 0;  // the first nine fraction digits
  std::optional<int> offsetMinutes;
};

bool isLeapYear(long long year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

unsigned daysInMonth(long long year, unsigned month) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

std::optional<DateTimeFields> parseDateTime(std::string_view text) {
  std::size_t at = 0;
  const auto digits = [&](std::size_t count, unsigned& value) {
    if (at + count > text.size()) return false;
    value = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const char c = text[at + i];
      if (c < '0' || c > '9') return false;
      value = value * 10 + static_cast<unsigned>(c - '0');
    }
    at += count;
    return true;
  };
  const auto literal = [&](char c) {
    if (at >= text.size() || text[at] != c) return false;
    ++at;
    return true;
  };

  DateTimeFields fields;
  const bool negativeYear = literal('-');
  const std::size_t yearStart = at;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
  const std::size_t yearDigits = at - yearStart;
  // Four digits or more, no leading zero beyond four; more than nine are refused here (no file
  // of ours will be dated in the year one billion).
  if (yearDigits < 4 || yearDigits > 9 || (yearDigits > 4 && text[yearStart] == '0')) {
    return std::nullopt;
  }
  for (std::size_t i = yearStart; i < at; ++i) fields.year = fields.year * 10 + (text[i] - '0');
  if (fields.year == 0) return std::nullopt;  // there is no year 0000 in XML Schema 1.0
  if (negativeYear) fields.year = -fields.year;

  if (!literal('-') || !digits(2, fields.month) || !literal('-') || !digits(2, fields.day) ||
      !literal('T') || !digits(2, fields.hour) || !literal(':') || !digits(2, fields.minute) ||
      !literal(':') || !digits(2, fields.second)) {
    return std::nullopt;
  }
  bool fractionNonZero = false;
  if (literal('.')) {
    const std::size_t fractionStart = at;
    long long scale = 100000000;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
      fields.nanoseconds += (text[at] - '0') * scale;
      fractionNonZero = fractionNonZero || text[at] != '0';
      scale /= 10;
      ++at;
    }
    if (at == fractionStart) return std::nullopt;
  }
  if (literal('Z')) {
    fields.offsetMinutes = 0;
  } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    const int sign = text[at] == '-' ? -1 : 1;
    ++at;
    unsigned hours = 0, minutes = 0;
    if (!digits(2, hours) || !literal(':') || !digits(2, minutes)) return std::nullopt;
    if (hours > 14 || minutes > 59 || (hours == 14 && minutes != 0)) return std::nullopt;
    fields.offsetMinutes = sign * static_cast<int>(hours * 60 + minutes);
  }
  if (at != text.size()) return std::nullopt;

  if (fields.month < 1 || fields.month > 12) return std::nullopt;
  if (fields.day < 1 || fields.day > daysInMonth(fields.year, fields.month)) return std::nullopt;
  if (fields.minute > 59 || fields.second > 59) return std::nullopt;
  if (fields.hour > 24) return std::nullopt;
  if (fields.hour == 24 && (fields.minute != 0 || fields.second != 0 || fractionNonZero)) {
    return std::nullopt;  // 24:00:00 is the end of the day, nothing after it
  }
  return fields;
}

}  // namespace

std::optional<MhlDateTime> MhlDateTime::fromText(std::string_view text) {
  if (!parseDateTime(text)) return std::nullopt;
  return MhlDateTime(std::string(text));
}

MhlDateTime MhlDateTime::fromTimePoint(std::chrono::system_clock::time_point time,
                                       std::chrono::minutes utcOffset) {
  using namespace std::chrono;
  if (utcOffset > hours{14} || utcOffset < -hours{14}) {
    detail::fatalInvalidValue("MhlDateTime", "UTC offset beyond +-14:00 (minutes)",
                              static_cast<std::uint64_t>(utcOffset.count()));
  }
  const sys_seconds local = floor<seconds>(time) + utcOffset;
  const sys_days day = floor<days>(local);
  const year_month_day date{day};
  const hh_mm_ss<seconds> clock{local - day};
  char text[64];
  int length = std::snprintf(
      text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()));
  if (utcOffset == minutes{0}) {
    length += std::snprintf(text + length, sizeof text - length, "Z");
  } else {
    const long long offset = utcOffset.count() < 0 ? -utcOffset.count() : utcOffset.count();
    length += std::snprintf(text + length, sizeof text - length, "%c%02lld:%02lld",
                            utcOffset.count() < 0 ? '-' : '+', offset / 60, offset % 60);
  }
  return MhlDateTime(std::string(text, static_cast<std::size_t>(length)));
}

std::optional<std::chrono::system_clock::time_point> MhlDateTime::timePoint() const {
  using namespace std::chrono;
  const std::optional<DateTimeFields> fields = parseDateTime(text_);
  if (!fields || !fields->offsetMinutes) return std::nullopt;
  if (fields->year < 1600 || fields->year > 2300) return std::nullopt;  // far beyond the clock
  sys_days day = sys_days{year{static_cast<int>(fields->year)} / fields->month / fields->day};
  const sys_seconds moment = day + hours{fields->hour} + minutes{fields->minute} +
                             seconds{fields->second} - minutes{*fields->offsetMinutes};
  // system_clock counts nanoseconds in 64 bits: about the years 1678 to 2261.
  constexpr long long kLimit = 9'223'372'035LL;
  if (moment.time_since_epoch().count() < -kLimit || moment.time_since_epoch().count() > kLimit) {
    return std::nullopt;
  }
  return time_point_cast<system_clock::duration>(moment) +
         duration_cast<system_clock::duration>(nanoseconds{fields->nanoseconds});
}

std::optional<std::chrono::minutes> MhlDateTime::utcOffset() const {
  const std::optional<DateTimeFields> fields = parseDateTime(text_);
  if (!fields || !fields->offsetMinutes) return std::nullopt;
  return std::chrono::minutes{*fields->offsetMinutes};
}

std::string MhlError::description() const {
  std::string text;
  if (!source.empty()) {
    text.append(source);
    if (line > 0) text.append(":").append(std::to_string(line));
    text.append(": ");
  } else if (line > 0) {
    text.append("line ").append(std::to_string(line)).append(": ");
  }
  text.append(message);
  return text;
}

}  // namespace corvane
