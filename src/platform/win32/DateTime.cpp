// Dates on Windows: the local time, and the OLE Automation run-time's date
// and its text for the user's locale.
//
// The one place where this file does more than forward: OLE Automation
// accepts some impossible dates and moves them (30 February becomes early
// March, day 0 the last day of the month before); the library takes a date
// that cannot be one as a failed conversion, so those are refused before.
#include "platform/DateTime.h"

#include <oleauto.h>

namespace {

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return (month == 2 && IsLeapYear(year)) ? 29 : kDays[month - 1];
}

// The range of an OLE Automation date: years 100 to 9999.
bool IsPossibleDate(const SYSTEMTIME& st) {
    if (st.wYear < 100 || st.wYear > 9999) return false;
    if (st.wMonth < 1 || st.wMonth > 12) return false;
    if (st.wDay < 1 || st.wDay > DaysInMonth(st.wYear, st.wMonth)) return false;
    return st.wHour < 24 && st.wMinute < 60 && st.wSecond < 60;
}

}  // namespace

void KvnGetLocalTime(SYSTEMTIME* st) {
    if (st) GetLocalTime(st);
}

BOOL KvnSystemTimeToVariantTime(const SYSTEMTIME* st, double* date) {
    if (!st || !date || !IsPossibleDate(*st)) return FALSE;
    // The function takes a non-const pointer; it gets a copy.
    SYSTEMTIME copy = *st;
    double converted = 0.0;
    if (!SystemTimeToVariantTime(&copy, &converted)) return FALSE;
    *date = converted;
    return TRUE;
}

BOOL KvnVarBstrFromDate(double date, DStr& text) {
    BSTR bstr = nullptr;
    // LANG_USER_DEFAULT: the user's default locale, no flags.
    if (FAILED(VarBstrFromDate(date, LANG_USER_DEFAULT, 0, &bstr)) || !bstr) return FALSE;
    text = bstr;
    SysFreeString(bstr);
    return TRUE;
}
