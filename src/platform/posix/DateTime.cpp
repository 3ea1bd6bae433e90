// Dates on POSIX: the local time, and the OLE Automation date (days since
// 30 December 1899 with the time of day as the fraction) with its text.
//
// Before 30 December 1899 the whole part counts days backwards and the
// fraction still counts the time forwards: -1.25 is 29 December 1899, 06:00.
//
// Where this differs from Windows: the text of a date does not follow the
// user's locale but is always "YYYY-MM-DD hh:mm:ss", the date alone at
// midnight and the time alone on 30 December 1899, as the Windows conversion
// leaves them out; milliseconds are ignored in both directions, as there.
#include "platform/DateTime.h"

#include <cmath>
#include <ctime>

#include <sys/time.h>

namespace {

const int kSecondsPerDay = 86400;
// The range of dates Automation accepts: 1 January 100 to 31 December 9999.
const double kFirstDate = -657434.0;
const double kLastDate = 2958466.0;  // exclusive: midnight ending 31 December 9999

bool IsLeapYear(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int DaysInMonth(int y, int m) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return (m == 2 && IsLeapYear(y)) ? 29 : kDays[m - 1];
}

// Days since 1 March of year 0 of the proleptic Gregorian calendar
// (H. Hinnant's days_from_civil), and its inverse.
long DaysFromCivil(int y, int m, int d) {
    y -= m <= 2;
    const long era = (y >= 0 ? y : y - 399) / 400;
    const long yoe = y - era * 400;
    const long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe;
}

void CivilFromDays(long z, int& y, int& m, int& d) {
    const long era = (z >= 0 ? z : z - 146096) / 146097;
    const long doe = z - era * 146097;
    const long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long mp = (5 * doy + 2) / 153;
    d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    y = static_cast<int>(yoe + era * 400 + (m <= 2));
}

const long kEpoch = DaysFromCivil(1899, 12, 30);

}  // namespace

void KvnGetLocalTime(SYSTEMTIME* st) {
    if (!st) return;
    timeval now;
    gettimeofday(&now, nullptr);
    std::time_t seconds = now.tv_sec;
    std::tm local;
    localtime_r(&seconds, &local);
    st->wYear = static_cast<WORD>(local.tm_year + 1900);
    st->wMonth = static_cast<WORD>(local.tm_mon + 1);
    st->wDayOfWeek = static_cast<WORD>(local.tm_wday);
    st->wDay = static_cast<WORD>(local.tm_mday);
    st->wHour = static_cast<WORD>(local.tm_hour);
    st->wMinute = static_cast<WORD>(local.tm_min);
    // A leap second is shown as the last second of its minute.
    st->wSecond = static_cast<WORD>(local.tm_sec > 59 ? 59 : local.tm_sec);
    st->wMilliseconds = static_cast<WORD>(now.tv_usec / 1000);
}

BOOL KvnSystemTimeToVariantTime(const SYSTEMTIME* st, double* date) {
    if (!st || !date) return FALSE;
    if (st->wYear < 100 || st->wYear > 9999 || st->wMonth < 1 || st->wMonth > 12 || st->wDay < 1 ||
        st->wDay > DaysInMonth(st->wYear, st->wMonth) || st->wHour > 23 || st->wMinute > 59 ||
        st->wSecond > 59) {
        return FALSE;
    }
    long days = DaysFromCivil(st->wYear, st->wMonth, st->wDay) - kEpoch;
    double fraction =
        static_cast<double>(st->wHour * 3600 + st->wMinute * 60 + st->wSecond) / kSecondsPerDay;
    *date = days >= 0 ? static_cast<double>(days) + fraction : static_cast<double>(days) - fraction;
    return TRUE;
}

BOOL KvnVarBstrFromDate(double date, DStr& text) {
    if (!(date > kFirstDate - 1.0 && date < kLastDate)) return FALSE;  // NaN too
    double whole = std::trunc(date);
    long days = static_cast<long>(whole);
    long seconds = std::lround(std::fabs(date - whole) * kSecondsPerDay);
    if (seconds >= kSecondsPerDay) {  // rounded up to the next midnight
        seconds -= kSecondsPerDay;
        ++days;
    }
    int y, m, d;
    CivilFromDays(days + kEpoch, y, m, d);
    if (y < 100 || y > 9999) return FALSE;
    int hh = static_cast<int>(seconds / 3600);
    int mm = static_cast<int>(seconds / 60 % 60);
    int ss = static_cast<int>(seconds % 60);
    int n;
    if (days == 0) {
        n = text.Printf(L"%02d:%02d:%02d", hh, mm, ss);
    } else if (seconds == 0) {
        n = text.Printf(L"%04d-%02d-%02d", y, m, d);
    } else {
        n = text.Printf(L"%04d-%02d-%02d %02d:%02d:%02d", y, m, d, hh, mm, ss);
    }
    return n > 0 ? TRUE : FALSE;
}
