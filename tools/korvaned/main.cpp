// korvaned: the Korvane service. Reads its configuration, listens, finds its
// database, starts the heartbeat and serves the clients until SIGTERM or
// SIGINT, then closes every link and stops.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <korvane/SockInit.h>

#include "Heartbeat.h"
#include "Odbc.h"
#include "Options.h"
#include "ReadOnly.h"
#include "Server.h"
#include "ServiceLog.h"
#include "ServiceProcess.h"
#include "Stats.h"

namespace {

void OnStopSignal(const char* name, void* server) {
    ServiceLog(1, "%s received", name);
    static_cast<Server*>(server)->Stop();
}

void OnHangUp(void*) {
    if (ReopenServiceLog()) ServiceLog(1, "SIGHUP: log file opened again");
    else ServiceLog(0, "SIGHUP: the log file cannot be opened again; the log goes on in the old one");
}

std::string StatsPage(void* server) { return static_cast<Server*>(server)->StatsPage(); }

// The connection string of the options' database, read-only when asked;
// empty (logged) when there is none.
std::string DatabaseConnection(const ServiceOptions& options) {
    if (!options.odbcConnection.empty()) {
        ServiceLog(1, "database: ODBC connection string given");
        if (!options.readOnly) return options.odbcConnection;
        std::string how;
        const std::string connection = ReadOnlyOdbcConnection(options.odbcConnection, &how);
        if (connection.empty()) ServiceLog(0, "--read-only: %s", how.c_str());
        else ServiceLog(1, "read-only: %s", how.c_str());
        return connection;
    }
    const std::string driver = options.sqliteDriver.empty() ? FindSqliteDriver() : options.sqliteDriver;
    if (driver.empty()) {
        ServiceLog(0, "the SQLite ODBC driver is not installed (Debian package libsqliteodbc); "
                      "give its path with --sqlite-driver or a connection string with --odbc");
        return "";
    }
    ServiceLog(1, "database: SQLite file '%s' through %s%s", options.databaseFile.c_str(), driver.c_str(),
               options.readOnly ? ", opened read-only" : "");
    return SqliteConnectionString(driver, options.readOnly ? ReadOnlySqliteFile(options.databaseFile)
                                                           : options.databaseFile);
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread: every thread started later has the stop signals blocked.
    BlockServiceSignals();
    ServiceOptions options;
    std::string error;
    switch (ParseOptions(argc, argv, options, error)) {
    case ParseResult::Help:
        std::fputs(OptionsHelp(argv[0]).c_str(), stdout);
        return 0;
    case ParseResult::Version:
        std::puts("korvaned " KVN_VERSION);
        return 0;
    case ParseResult::Error:
        std::fprintf(stderr, "korvaned: %s\n", error.c_str());
        return 2;
    case ParseResult::Run:
        break;
    }
    SetServiceLogLevel(options.logLevel);
    if (!options.logFile.empty() && !SetServiceLogFile(options.logFile)) {
        std::fprintf(stderr, "korvaned: cannot open the log file '%s'\n", options.logFile.c_str());
        return 1;
    }
    ServiceLog(1, "korvaned " KVN_VERSION " starting");
    const std::string connection = DatabaseConnection(options);
    if (connection.empty()) return 1;
    if (SockInitWinSock() != 1) {
        ServiceLog(0, "the socket layer cannot start");
        return 1;
    }

    // Nothing is written to disk (database, pid file) before the port is ours.
    Server server(options, connection);
    if (!server.Listen()) return 1;
    if (!options.pidFile.empty() &&
        !WriteFileAtomically(options.pidFile, std::to_string(CurrentProcessId()) + "\n")) {
        ServiceLog(0, "cannot write the pid file '%s'", options.pidFile.c_str());
    }
    {
        // Tried once at start so that a wrong configuration shows at once;
        // the service still starts, as the database may come up later.
        OdbcConnexion probe;
        if (!probe.Open(connection)) ServiceLog(0, "database not reachable yet: %s", probe.LastError().c_str());
    }
    Heartbeat heartbeat;
    if (!heartbeat.Start(options)) ServiceLog(0, "running without heartbeat");
    StatsListener stats;
    if (options.statsPort > 0) stats.Start(options.statsPort, &StatsPage, &server);
    SignalActions actions;
    actions.stop = &OnStopSignal;
    actions.hangUp = &OnHangUp;
    actions.context = &server;
    if (!StartSignalThread(actions)) ServiceLog(0, "cannot watch the stop signals");

    server.Serve();

    ServiceLog(1, "shutting down: %s", server.CountsText().c_str());
    const Server::ShutdownCounts counts = server.Shutdown(static_cast<DWORD>(options.stopTimeoutMs));
    stats.Stop();
    heartbeat.Stop();
    if (!options.pidFile.empty()) std::remove(options.pidFile.c_str());
    ServiceLog(1, "stopped: %d links closed, %d requests under way answered, %d abandoned", counts.links,
               counts.finished, counts.abandoned);
    if (counts.abandoned > 0) {
        // Their threads are still inside the database driver: the process
        // ends without running the destructors they may still be using.
        std::fflush(nullptr);
        std::_Exit(0);
    }
    SockCloseWinSock();
    return 0;
}
