#include "Common/Utility/UtlTime.h"

#include <sys/sysinfo.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <istream>
#include <ostream>
#include <sstream>
#include <string>

#include "Common/OS/Linux/OSAL.h"
#include "Common/Utility/UtlDebug.h"
#include "Common/Utility/UtlFormatGuard.h"

namespace {

// The writer prints the first six as separators; the reader ends each element
// at the next one, the last at the end of the line.
const char kDelimiters[] = "// ::.\n";
const char* const kElementNames[] = {"MONTH", "DAY OF MONTH", "YEAR", "HOUR", "MIN", "SEC", "USEC", "EOL"};
constexpr int kElements = 7;

// Broken-down UTC time of a timeval; zeroes when it cannot be converted.
tm utc(const timeval& tv)
{
    tm out{};
    const long secs = static_cast<long>(tv.tv_sec);
    GMTIME(&secs, &out);
    return out;
}

// Zero-filled decimal fields, leaving the caller's formatting as it was.
class FormatGuard : public UtlFormatGuard {
public:
    explicit FormatGuard(std::ostream& os) : UtlFormatGuard(os)
    {
        os.fill('0');
        os.width(0);
        os.setf(std::ios::dec, std::ios::basefield);
        os.setf(std::ios::right, std::ios::adjustfield);
    }
};

// atoi for valid input, but clamped instead of overflowing on nonsense.
long long toNumber(const std::string& s)
{
    errno = 0;
    const long long v = std::strtoll(s.c_str(), nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return v;
}

} // namespace

bool operator==(const timeval& a, const timeval& b)
{
    return a.tv_sec == b.tv_sec && a.tv_usec == b.tv_usec;
}

bool operator!=(const timeval& a, const timeval& b)
{
    return !(a == b);
}

bool operator<(const timeval& a, const timeval& b)
{
    if (a.tv_sec != b.tv_sec) return a.tv_sec < b.tv_sec;
    return a.tv_usec < b.tv_usec;
}

bool operator>(const timeval& a, const timeval& b)
{
    return b < a;
}

bool operator<=(const timeval& a, const timeval& b)
{
    return !(b < a);
}

bool operator>=(const timeval& a, const timeval& b)
{
    return !(a < b);
}

std::ostream& operator<<(std::ostream& os, const timeval& tv)
{
    const tm t = utc(tv);
    FormatGuard g(os);
    os << std::setw(2) << t.tm_mon + 1 << kDelimiters[0] << std::setw(2) << t.tm_mday << kDelimiters[1] << std::setw(2)
       << t.tm_year + 1900 << kDelimiters[2] << std::setw(2) << t.tm_hour << kDelimiters[3] << std::setw(2) << t.tm_min
       << kDelimiters[4] << std::setw(2) << t.tm_sec << kDelimiters[5] << std::setw(3) << tv.tv_usec / 1000;
    return os;
}

std::istream& operator>>(std::istream& is, timeval& tv)
{
    tv.tv_sec = 0;
    tv.tv_usec = 0;
    std::string element[kElements];
    for (int i = 0; i < kElements; ++i) {
        if (!std::getline(is, element[i], kDelimiters[i])) {
            std::ostringstream msg;
            msg << "operator>>: Failed to read [" << kElementNames[i] << "] timestamp element at position[" << i
                << "] and ending with delimiter[" << kDelimiters[i] << "]\n";
            debugOut(msg.str().c_str(), false);
            return is;
        }
    }
    const long long mon = toNumber(element[0]) - 1;
    const long long mday = toNumber(element[1]);
    const long long year = toNumber(element[2]) - 1900;
    const long long hour = toNumber(element[3]);
    const long long min = toNumber(element[4]);
    const long long sec = toNumber(element[5]);
    if (mon < 0 || mon > 11 || mday < 1 || mday > 31 || year < 0 || hour < 0 || hour > 23 || min < 0 || min > 59 ||
        sec < 0 || sec > 59)
        return is;
    tm t{};
    t.tm_mon = static_cast<int>(mon);
    t.tm_mday = static_cast<int>(mday);
    t.tm_year = static_cast<int>(year);
    t.tm_hour = static_cast<int>(hour);
    t.tm_min = static_cast<int>(min);
    t.tm_sec = static_cast<int>(sec);
    t.tm_isdst = -1; // let the zone rules decide, as for any local wall-clock time
    tv.tv_sec = mktime(&t);
    // The last element counts milliseconds despite its name.
    tv.tv_usec = static_cast<suseconds_t>(toNumber(element[6]) * 1000);
    return is;
}

std::ostream& operator<<(std::ostream& os, const date& d)
{
    const tm t = utc(d.tv);
    FormatGuard g(os);
    os << std::setw(2) << t.tm_year + 1900 << '-' << std::setw(2) << t.tm_mon + 1 << '-' << std::setw(2) << t.tm_mday;
    return os;
}

std::ostream& operator<<(std::ostream& os, const monthDay& d)
{
    const tm t = utc(d.tv);
    FormatGuard g(os);
    os << std::setw(2) << t.tm_mon + 1 << '/' << std::setw(2) << t.tm_mday;
    return os;
}

std::ostream& operator<<(std::ostream& os, const timeofday& tod)
{
    const tm t = utc(tod.tv);
    FormatGuard g(os);
    os << std::setw(2) << t.tm_hour << ':' << std::setw(2) << t.tm_min << ':' << std::setw(2) << t.tm_sec;
    return os;
}

std::ostream& operator<<(std::ostream& os, const precisetimeofday& tod)
{
    const tm t = utc(tod.tv);
    FormatGuard g(os);
    os << std::setw(2) << t.tm_hour << ':' << std::setw(2) << t.tm_min << ':' << std::setw(2) << t.tm_sec << '.'
       << std::setw(6) << tod.tv.tv_usec;
    return os;
}

std::ostream& operator<<(std::ostream& os, const itimerspec& its)
{
    os << "it_value[" << its.it_value.tv_sec << "." << its.it_value.tv_nsec << "] it_interval["
       << its.it_interval.tv_sec << "." << its.it_interval.tv_nsec << "]";
    return os;
}

tm* GMTIME(const long* t, tm* out)
{
    if (out == nullptr) return nullptr;
    std::memset(out, 0, sizeof *out);
    if (t == nullptr) return nullptr;
    const time_t secs = static_cast<time_t>(*t);
    if (gmtime_r(&secs, out) == nullptr) {
        std::memset(out, 0, sizeof *out);
        return nullptr;
    }
    return out;
}

long get_uptime()
{
    struct sysinfo info {};
    if (sysinfo(&info) != 0) return 0;
    return info.uptime;
}

int microsleep(unsigned us)
{
    if (us == 0) return 0;
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(us / 1000000u);
    ts.tv_nsec = static_cast<long>(us % 1000000u) * 1000L;
    int rc;
    while ((rc = nanosleep(&ts, &ts)) == -1 && errno == EINTR) {
    }
    return rc;
}

int microsleep2(unsigned us, bool trace)
{
    const long long start = get_ticks();
    const int rc = microsleep(us);
    if (trace) {
        const long long end = get_ticks();
        std::ostringstream msg;
        msg << "microsleep2: arg microsleep [" << us << "] start time [" << start << "] end time [" << end
            << "] - nanosleep return [" << rc << "]\n";
        debugOut(msg.str().c_str(), false);
    }
    return rc;
}
