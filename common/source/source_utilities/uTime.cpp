#include "source_utilities/uTime.hpp"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace QX_NLV {

namespace {
constexpr int kCumulativeDays[2][13] = {
    {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};
}  // namespace

int uTime::dayOfYearFor(int year, int month, int day) {
  int leap = (year % 4 == 0) ? 1 : 0;
  if (month < 1 || month > 12) return 0;
  return kCumulativeDays[leap][month - 1] + day;
}

uTime::uTime() {
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
            1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  year_ = local.tm_year + 1900;
  month_ = local.tm_mon + 1;
  day_ = local.tm_mday;
  hour_ = local.tm_hour;
  minute_ = local.tm_min;
  second_ = local.tm_sec;
  millisecond_ = static_cast<int>(ms);
  dayOfWeek_ = local.tm_wday;
  dayOfYear_ = dayOfYearFor(year_, month_, day_);
  valid_ = true;
}

char* uTime::format(char* buffer, int size, const char* format) const {
  if (buffer == nullptr || size <= 0) return nullptr;
  if (!valid_) {
    std::snprintf(buffer, static_cast<size_t>(size), "%s", "Invalid time");
    return buffer;
  }
  std::string pattern(format != nullptr ? format : "");
  if (pattern.size() > static_cast<size_t>(size)) pattern.resize(static_cast<size_t>(size));

  // Our two codes go first, so strftime never sees them ("%s" would be the
  // epoch seconds to strftime). "%%" pairs are kept as they are.
  char padded[8];
  char plain[8];
  std::snprintf(padded, sizeof padded, "%03d", millisecond_);
  std::snprintf(plain, sizeof plain, "%d", millisecond_);
  std::string expanded;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '%' && i + 1 < pattern.size()) {
      if (pattern[i + 1] == 's') {
        expanded += padded;
        ++i;
        continue;
      }
      if (pattern[i + 1] == '#' && i + 2 < pattern.size() && pattern[i + 2] == 's') {
        expanded += plain;
        i += 2;
        continue;
      }
      if (pattern[i + 1] == '%') {
        expanded += "%%";
        ++i;
        continue;
      }
    }
    expanded += pattern[i];
  }

  std::tm fields{};
  fields.tm_year = year_ - 1900;
  fields.tm_mon = month_ - 1;
  fields.tm_mday = day_;
  fields.tm_hour = hour_;
  fields.tm_min = minute_;
  fields.tm_sec = second_;
  fields.tm_wday = dayOfWeek_;
  fields.tm_yday = dayOfYear_ - 1;
  fields.tm_isdst = -1;
  if (std::strftime(buffer, static_cast<size_t>(size), expanded.c_str(), &fields) == 0) {
    buffer[0] = '\0';
  }
  return buffer;
}

}  // namespace QX_NLV
