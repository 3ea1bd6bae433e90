// korvaned: the Korvane service. Reads its options, finds its database,
// starts the heartbeat and serves the clients until it is stopped.
#include <cstdio>
#include <string>

#include <korvane/SockInit.h>

#include "Heartbeat.h"
#include "Odbc.h"
#include "Options.h"
#include "Server.h"
#include "ServiceLog.h"

int main(int argc, char** argv) {
    ServiceOptions options;
    std::string error;
    switch (ParseOptions(argc, argv, options, error)) {
    case ParseResult::Help:
        std::fputs(OptionsHelp(argv[0]).c_str(), stdout);
        return 0;
    case ParseResult::Error:
        std::fprintf(stderr, "korvaned: %s\n", error.c_str());
        return 2;
    case ParseResult::Run:
        break;
    }
    SetServiceLogLevel(options.logLevel);

    std::string connection = options.odbcConnection;
    if (connection.empty()) {
        std::string driver = options.sqliteDriver.empty() ? FindSqliteDriver() : options.sqliteDriver;
        if (driver.empty()) {
            ServiceLog(0, "the SQLite ODBC driver is not installed (Debian package libsqliteodbc); "
                          "give its path with --sqlite-driver or a connection string with --odbc");
            return 1;
        }
        connection = SqliteConnectionString(driver, options.databaseFile);
        ServiceLog(1, "database: SQLite file '%s' through %s", options.databaseFile.c_str(), driver.c_str());
    } else {
        ServiceLog(1, "database: ODBC connection string given");
    }
    {
        // Tried once at start so that a wrong configuration shows at once;
        // the service still starts, as the database may come up later.
        OdbcConnexion probe;
        if (!probe.Open(connection)) {
            ServiceLog(0, "database not reachable yet: %s", probe.LastError().c_str());
        }
    }

    if (SockInitWinSock() != 1) {
        ServiceLog(0, "the socket layer cannot start");
        return 1;
    }
    Heartbeat heartbeat;
    if (!heartbeat.Start(options)) ServiceLog(0, "running without heartbeat");
    Server server(options, connection);
    const int code = server.Run();
    heartbeat.Stop();
    SockCloseWinSock();
    return code;
}
