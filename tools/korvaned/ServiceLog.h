// The service's log: one line per event, with the UTC time and the level, on
// the standard error stream or in a log file. Safe to call from any thread.
//
// Levels: 0 errors, 1 the service's life (start, clients, links), 2 every
// request, 3 message details. Lines above the level chosen at start are not
// written.
#ifndef KORVANED_SERVICELOG_H
#define KORVANED_SERVICELOG_H

#include <string>

// Always written, like errors: something the operator should look at.
constexpr int kLogWarning = -1;

void SetServiceLogLevel(int level);
int ServiceLogLevel();

// Appends the log to path from now on; false (the log staying where it was)
// when the file cannot be opened.
bool SetServiceLogFile(const std::string& path);
// Opens the log file again under its name, for a log rotation that moved it
// away; the log stays on the old file when the new one cannot be opened.
bool ReopenServiceLog();

// printf-style; the line end is added.
void ServiceLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif
