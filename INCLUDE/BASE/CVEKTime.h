// CVEKTime: a point in time, in seconds since the epoch and a sub-second count, which can be
// written and read by a picture.
//
// A picture is text in which each letter stands for the next digit of its field: C century, Y year
// in the century ("YYYY" is taken as "CCYY"), M month, D day, h hour, m minute, s second, and X or
// c milliseconds. "YYYY/MM/DD hh:mm:ss.XXX" gives 2026/11/15 12:00:00.512. Every other character
// stands for itself. Times are local unless said otherwise.
//
// A plain value: one thread at a time uses an object.
#ifndef CVEK_TIME_H
#define CVEK_TIME_H

#include <sys/timeb.h>

#include <cstddef>
#include <ctime>

#include "VEKExport.h"

class VEK_API CVEKTime {
  public:
    // The current time.
    CVEKTime();
    // t: seconds since the epoch.
    explicit CVEKTime(long t);

    // Reads the clock, to the millisecond.
    void Now();

    CVEKTime& operator=(const timeb& t);
    CVEKTime& operator=(long t);
    // Whole seconds.
    CVEKTime& operator+=(long n);
    CVEKTime& operator-=(long n);
    // Both parts. The sub-second part carries at 100, once, although Now counts thousandths.
    CVEKTime& operator+=(const CVEKTime& other);
    CVEKTime& operator-=(const CVEKTime& other);
    // Both parts are equal.
    bool operator==(const CVEKTime& other) const;

    // Seconds since the epoch.
    long Get() const { return now_.time; }
    operator time_t() const { return now_.time; }
    // The record inside; valid as long as the object.
    explicit operator timeb*() { return &now_; }
    // Drops the sub-second part.
    void CutMSec() { now_.millitm = 0; }

    // The local time. Months count from 1.
    tm GetTm() const;
    int GetYear() const { return GetTm().tm_year + 1900; }
    int GetMonth() const { return GetTm().tm_mon + 1; }
    int GetDay() const { return GetTm().tm_mday; }
    int GetHour() const { return GetTm().tm_hour; }
    int GetMin() const { return GetTm().tm_min; }
    int GetSec() const { return GetTm().tm_sec; }
    int GetMilliSec() const { return now_.millitm; }

    // Writes the time by a picture of at most 32 characters; without a picture as asctime does.
    // Returns the text, which the next call overwrites, or null for a longer picture (after an
    // Error line) and for one with more uses of a letter than its field has digits.
    const char* AscTime(const char* picture);
    // The same into `out`, of 33 bytes. Without a picture the result is still in the object.
    const char* AscTime(const char* picture, char* out) { return _AscTime(picture, out); }

    // The UTC time as "2026-11-15T12:00:00Z". Returns the text, which the next call overwrites.
    const char* AscGMTime();
    // The same into `out`, of `size` bytes (21 for years up to 9999); empty when they do not hold
    // it. Returns `out`.
    char* AscGMTime(char* out, int size) const;

    // Reads `value`, each character by the letter at the same place of the picture; missing fields
    // are 0 and are normalised as mktime does it, digits are not checked, milliseconds are not
    // read. Returns the seconds since the epoch, or 0 when the two differ in length or a letter is
    // used more than twice.
    static long MakeTime(const char* picture, const char* value);

  private:
    const char* _AscTime(const char* picture, char* out);

    timeb now_;
    char ascTm_[33];
};

// Compare seconds plus sub-second counts: a sub-second count weighs as much as a second.
VEK_API bool operator>(const CVEKTime& a, const CVEKTime& b);
VEK_API bool operator<(const CVEKTime& a, const CVEKTime& b);
VEK_API bool operator<=(const CVEKTime& a, const CVEKTime& b);
VEK_API bool operator>=(const CVEKTime& a, const CVEKTime& b);

#endif
