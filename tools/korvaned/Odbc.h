// One database connection through ODBC (unixODBC's driver manager): running
// statements, streaming a select's rows in blocks, binding parameters,
// calling stored procedures, asking the catalog, and keeping the text of the
// last diagnostic. Texts are UTF-8, passed to the drivers' narrow functions.
//
// Not thread-safe: a connection belongs to the one session that serves its
// logical connection.
#ifndef KORVANED_ODBC_H
#define KORVANED_ODBC_H

#include <cstddef>
#include <string>
#include <vector>

#include "DbValue.h"

// Where the SQLite ODBC driver library lies on this machine; empty when none
// of the usual places has it.
std::string FindSqliteDriver();

// The connection string of a SQLite file through the driver at driverPath:
// the driver is named by its path, so that no driver registration is needed.
std::string SqliteConnectionString(const std::string& driverPath, const std::string& file);

class OdbcConnexion {
public:
    OdbcConnexion();
    ~OdbcConnexion();
    OdbcConnexion(const OdbcConnexion&) = delete;
    OdbcConnexion& operator=(const OdbcConnexion&) = delete;

    bool Open(const std::string& connectionString);
    bool IsOpen() const;
    // The driver reported the connection itself failing (SQLSTATE class 08):
    // it is to be closed and opened again.
    bool IsBroken() const { return broken_; }
    void Close();

    // Every operation returns false on failure, the diagnostic then in LastError().

    // Runs a statement; *rowCount: rows affected (-1 when the driver cannot
    // tell). The statement stays prepared for the next time its text comes
    // (a few dozen texts, the least recently used going first); one that
    // fails is prepared afresh the next time.
    bool Execute(const std::string& sql, long long* rowCount);
    // Runs a statement with values bound to its markers 1, 2, ...
    bool ExecuteBind(const std::string& sql, const std::vector<DbValue>& params, long long* rowCount);
    // Calls a procedure or function; OUT and IN/OUT values are written back
    // into params. The call form is the data source's: on PostgreSQL a
    // procedure is run with CALL and a function as a select from it, and the
    // values come from the row they return; elsewhere {CALL name(?, ...)}.
    bool CallProcedure(const std::string& name, std::vector<DbProcParam>& params);

    // Opens a select (closing any earlier one); *columns: result columns (0
    // for a statement without result set, which is then already done, with
    // *rowCount the rows it affected, -1 when the driver cannot tell).
    bool OpenSelect(const std::string& sql, int* columns, long long* rowCount);
    // Hands the next row of the open select to sink, cell after cell; *row
    // is false when no row is left. A row whose cells would take more than
    // maxBytes on the wire has its longest texts cut until it fits. false on
    // a database error (the select is then closed).
    bool NextRow(std::size_t maxBytes, DbCellSink& sink, bool* row);
    // Rows that NextRow hands out before it has to ask the database again.
    int Buffered() const;
    // The open select may still give rows. One that has given all of them
    // stays open until CloseSelect: closing frees what the driver holds of
    // it, which need not delay the last rows.
    bool HasRows() const;
    bool IsSelectOpen() const { return cursor_ != nullptr; }
    int SelectColumns() const { return selectColumns_; }
    void CloseSelect();

    // Catalog questions. Names are compared without regard to case.
    bool TableExists(const std::string& table, bool* exists);
    bool Columns(const std::string& table, std::vector<DbColumn>* columns);

    // Text of the last diagnostic met on this connection, empty when none yet.
    const std::string& LastError() const { return lastError_; }

private:
    struct Cursor;
    struct Prepared;

    // Keeps the diagnostic records of handle (type: SQL_HANDLE_*) as the last error.
    void KeepDiagnostic(short handleType, void* handle, const char* what);
    void* NewStatement();
    static void FreeStatement(void* stmt);
    // The prepared statement of sql, preparing it (in place of the least
    // recently used one when there are enough) when it is not; null on failure.
    Prepared* PreparedStatement(const std::string& sql);
    void ForgetPrepared(Prepared* p);
    // The select's next rowset into its bound columns; false on error.
    bool FetchRowset();
    bool ReadRow(std::vector<DbValue>* cells, std::size_t* bytes);
    // PostgreSQL: whether name is a procedure rather than a function.
    bool IsPostgresProcedure(const std::string& name, bool* procedure);
    bool CallPostgres(const std::string& name, bool procedure, std::vector<DbProcParam>& params);

    void* dbc_;
    void* selectStmt_;  // the statement handle of every select, kept between them
    Cursor* cursor_;
    std::vector<Prepared*> prepared_;
    unsigned long long useClock_;
    int selectColumns_;
    bool broken_;
    bool postgres_;  // the data source is PostgreSQL (its call forms differ)
    std::string lastError_;
};

#endif
