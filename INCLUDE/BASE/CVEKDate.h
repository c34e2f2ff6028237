// CVEKDate: a day of the Gregorian calendar, also before its introduction, kept as a Julian day
// number, with day arithmetic.
//
// A date may be invalid; it then answers -1, 0 or null as said at each operation. Negative years
// are accepted (there is no year 0) but do not come back: the getters count them with a year 0.
// The texts and getters hold for years -999 to 9999.
//
// A plain value: one thread at a time uses an object.
#ifndef CVEK_DATE_H
#define CVEK_DATE_H

#include <cstdint>
#include <ctime>

#include "VEKExport.h"

class VEK_API CVEKDate {
  public:
    // Today, in local time.
    CVEKDate();
    // Year, month and day of a breakdown.
    explicit CVEKDate(const tm* day);
    // The local date of epoch seconds.
    explicit CVEKDate(long t);
    // Reads CCYYMMDD. Anything but 8 digits is an Error line and an invalid date.
    explicit CVEKDate(const char* s);

    void SetDate(long t);

    bool IsValid() const { return julian_ != INVALID; }
    bool operator!() const { return !IsValid(); }
    int64_t GetJulian() const { return julian_; }

    // Adds n days if the date is valid.
    void AddDate(int n);

    // The epoch seconds of local midnight; -1 if invalid.
    long Get() const;
    // -1 if invalid. A day that its month does not have is the day counted on into the next month.
    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    // 0 Sunday to 6 Saturday; -1 if invalid.
    int GetDayOfWeek() const;

    // Writes CCYYMMDD. out: 9 bytes for the years named above, 32 for any. Returns 1, or 0 if
    // invalid.
    int GetDate(char* out) const;
    // Writes the date by a picture of at most 12 characters: C, Y, M and D stand for the next of
    // the two digits of their field, other characters for themselves. Returns the text, which the
    // next call overwrites, or null: for no or a longer picture and for an invalid date after an
    // Error line, for a third use of a letter without.
    const char* AscDate(const char* picture);
    // CCYYMMDD in one buffer of the process: the next call, for any date, overwrites it. For one
    // thread only.
    const char* operator()() const;

    // Both forms return the changed date itself.
    CVEKDate& operator++();
    CVEKDate& operator++(int);
    CVEKDate& operator--();
    CVEKDate& operator--(int);
    // Days. An invalid date is not looked out for.
    CVEKDate& operator+=(long n);
    CVEKDate& operator-=(long n);

    // Reads the first 4, the next 2 and the next 2 characters as numbers, unchecked.
    CVEKDate& operator=(const char* s);
    // A Julian day number, not epoch seconds.
    CVEKDate& operator=(long jd);

    bool operator==(const CVEKDate& other) const { return julian_ == other.julian_; }
    bool operator!=(const CVEKDate& other) const { return julian_ != other.julian_; }
    bool operator<(const CVEKDate& other) const { return julian_ < other.julian_; }
    bool operator<=(const CVEKDate& other) const { return julian_ <= other.julian_; }
    bool operator>(const CVEKDate& other) const { return julian_ > other.julian_; }
    bool operator>=(const CVEKDate& other) const { return julian_ >= other.julian_; }

    // Sets the day from a calendar date, whose month and day may lie outside their usual ranges.
    void ToJulian(int64_t year, int64_t month, int64_t day);
    // Writes the day as the text of GetDate into `out`, of the same size.
    void FromJulian(char* out) const;

  private:
    static constexpr int64_t INVALID = 0x7FFFFFFF;

    int64_t julian_;
    char dateStr_[13];
};

// A copy with n days added or subtracted; the order of the operands makes no difference, not even
// to the subtraction.
VEK_API CVEKDate operator+(const CVEKDate& date, long n);
VEK_API CVEKDate operator+(long n, const CVEKDate& date);
VEK_API CVEKDate operator-(const CVEKDate& date, long n);
VEK_API CVEKDate operator-(long n, const CVEKDate& date);

#endif
