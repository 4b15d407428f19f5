// QX_NLV::uTime: the local time at construction, formatted with strftime
// codes plus two of our own: "%s" is the millisecond as three digits and
// "%#s" the millisecond without padding.
//
// Each object keeps its own fields, so objects on different threads never
// interfere. An object is valid once constructed.
#pragma once

namespace QX_NLV {

class uTime {
 public:
  uTime();
  virtual ~uTime() = default;

  int month() const { return month_; }  // 1 to 12
  int day() const { return day_; }
  int year() const { return year_; }
  int hour() const { return hour_; }
  int minute() const { return minute_; }
  int second() const { return second_; }
  int millisecond() const { return millisecond_; }
  int dayOfWeek() const { return dayOfWeek_; }
  int dayOfYear() const { return dayOfYear_; }

  // Formats into buffer; gives buffer, or null for a null buffer or a size
  // that is not positive. The format is cut to `size` before expansion.
  char* format(char* buffer, int size, const char* format) const;

  // Day of the year, 1-based, from cumulative month lengths; the leap table
  // applies when the year is divisible by 4.
  static int dayOfYearFor(int year, int month, int day);

 private:
  int year_ = 0, month_ = 0, day_ = 0, hour_ = 0, minute_ = 0, second_ = 0;
  int millisecond_ = 0, dayOfWeek_ = 0, dayOfYear_ = 0;
  bool valid_ = false;
};

}  // namespace QX_NLV
