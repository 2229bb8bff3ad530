#pragma once

// Comparison and text of timeval and friends, sleeping in microseconds and
// the system up-time. Printed times are UTC; a timeval read back from text is
// taken as local time (the reader and the writer differ on purpose).
#include <sys/time.h>
#include <time.h>

#include <iosfwd>

#include "TavroExport.h"

// Small views of a time stamp, each printing a part of its UTC broken-down
// time: date "YYYY-MM-DD", monthDay "MM/DD", timeofday "HH:MM:SS",
// precisetimeofday "HH:MM:SS.uuuuuu". Default-constructed: the current time.
struct date {
    date() { gettimeofday(&tv, nullptr); }
    explicit date(const timeval& t) : tv(t) {}
    timeval tv;
};
struct monthDay {
    monthDay() { gettimeofday(&tv, nullptr); }
    explicit monthDay(const timeval& t) : tv(t) {}
    timeval tv;
};
struct timeofday {
    timeofday() { gettimeofday(&tv, nullptr); }
    explicit timeofday(const timeval& t) : tv(t) {}
    timeval tv;
};
struct precisetimeofday {
    precisetimeofday() { gettimeofday(&tv, nullptr); }
    explicit precisetimeofday(const timeval& t) : tv(t) {}
    timeval tv;
};

TAVRO_EXPORT bool operator==(const timeval& a, const timeval& b);
TAVRO_EXPORT bool operator!=(const timeval& a, const timeval& b);
TAVRO_EXPORT bool operator<(const timeval& a, const timeval& b);
TAVRO_EXPORT bool operator>(const timeval& a, const timeval& b);
TAVRO_EXPORT bool operator<=(const timeval& a, const timeval& b);
TAVRO_EXPORT bool operator>=(const timeval& a, const timeval& b);

// "MM/DD/YYYY HH:MM:SS.mmm" in UTC, no line end.
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const timeval& tv);
// Reads "MM/DD/YYYY HH:MM:SS.mmm" up to the end of the line as LOCAL time.
// A missing element is reported to the debug trace; out-of-range fields leave
// the result at zero.
TAVRO_EXPORT std::istream& operator>>(std::istream& is, timeval& tv);

TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const date& d);
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const monthDay& d);
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const timeofday& t);
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const precisetimeofday& t);
// "it_value[<s>.<ns>] it_interval[<s>.<ns>]"
TAVRO_EXPORT std::ostream& operator<<(std::ostream& os, const itimerspec& its);

// Thread-safe UTC conversion; returns out, or NULL (with out zeroed) when *t
// cannot be converted.
TAVRO_EXPORT tm* GMTIME(const long* t, tm* out);
// Seconds since boot; 0 when unknown.
TAVRO_EXPORT long get_uptime();
// Sleeps us microseconds, resuming after signals; returns the last nanosleep
// result (0 at once for 0).
TAVRO_EXPORT int microsleep(unsigned us);
// microsleep, and with trace set a trace line with the ticks around the sleep.
TAVRO_EXPORT int microsleep2(unsigned us, bool trace);
