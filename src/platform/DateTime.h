// Dates: local time, and the OLE Automation date with its text (the
// SystemTimeToVariantTime and VarBstrFromDate of Windows; equivalents
// elsewhere).
#ifndef KORVANE_PLATFORM_DATETIME_H
#define KORVANE_PLATFORM_DATETIME_H

#include <korvane/platform/DStr.h>
#include <korvane/platform/KvnTypes.h>

void KvnGetLocalTime(SYSTEMTIME* st);

// Days since 30 December 1899, with the time of day as the fraction.
// FALSE for an impossible date (month 0, day 31 of a 30-day month, year
// outside 100 to 9999, hour 24 ...).
BOOL KvnSystemTimeToVariantTime(const SYSTEMTIME* st, double* date);

// The text of a date for the user's default locale. On Windows it is the
// system's own text; elsewhere it is "YYYY-MM-DD hh:mm:ss", without the time
// when it is midnight and without the date on 30 December 1899, as the
// Windows conversion leaves them out. FALSE when the date cannot be rendered.
BOOL KvnVarBstrFromDate(double date, DStr& text);

#endif
