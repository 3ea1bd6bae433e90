// The service's log: one line per event on the standard error stream, with
// the UTC time and the level. Safe to call from any thread.
//
// Levels: 0 errors, 1 the service's life (start, clients, links), 2 every
// request, 3 message details. Lines above the level chosen at start are not
// written.
#ifndef KORVANED_SERVICELOG_H
#define KORVANED_SERVICELOG_H

void SetServiceLogLevel(int level);
int ServiceLogLevel();

// printf-style; the line end is added.
void ServiceLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif
