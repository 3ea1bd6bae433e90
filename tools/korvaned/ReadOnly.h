// How a data source is made read-only, per kind of data source: what the
// database itself then enforces, so that no statement text has to be judged.
//
//  - SQLite: the file is opened read-only; every write fails.
//  - PostgreSQL (psqlODBC): every transaction of the session is read-only,
//    so writes fail. A statement can still change the session's setting
//    back; for a guarantee the service connects as a user that may only read.
//  - any other data source: refused, as the service cannot tell how.
#ifndef KORVANED_READONLY_H
#define KORVANED_READONLY_H

#include <string>

// The SQLite file name that opens path read-only (a URI with mode=ro).
std::string ReadOnlySqliteFile(const std::string& path);

// The connection string that makes connection read-only, with *how saying
// how; empty with *how saying why when the data source is not one that the
// service knows how to make read-only.
std::string ReadOnlyOdbcConnection(const std::string& connection, std::string* how);

#endif
