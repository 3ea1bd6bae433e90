// The service's configuration: defaults, then a configuration file
// (--config), then KORVANED_* environment variables, then the command line;
// each source overrides the ones before it.
#ifndef KORVANED_OPTIONS_H
#define KORVANED_OPTIONS_H

#include <string>
#include <vector>

#include "AccessList.h"

enum class HeartbeatMode { Broadcast, Multicast, Unicast };

struct ServiceOptions {
    // Listening.
    std::string listenAddress = "127.0.0.1";
    int port = 5151;              // 0: the system picks a free port
    std::string portFile;         // where to write the port once listening
    // Who may open a link; empty after parsing means loopback only.
    std::vector<Network> allowed;

    // Database: a SQLite file through the SQLite ODBC driver, unless an ODBC
    // connection string is given.
    std::string databaseFile = "korvane.db";
    std::string odbcConnection;
    std::string sqliteDriver;     // empty: searched in the usual places
    // Rows per block of a select, at most: a block also ends where a message
    // would pass its bytes. The exchange of a block costs little beside its
    // rows past a few hundred, and the next block is made ready while one is
    // read (bench/SelectBench: of 100 to 5000, the largest were the fastest,
    // as many rows as a message holds).
    int blockRows = 5000;
    int dbType = 0;               // database type announced to the clients
    bool readOnly = false;

    // Limits.
    int maxClients = 64;          // applications registered at once
    int maxConnexions = 256;      // logical connections open at once
    int maxSockets = 1024;        // links of any kind at once
    int stopTimeoutMs = 10000;    // how long requests under way may run on at a stop

    // Heartbeat.
    HeartbeatMode hbMode = HeartbeatMode::Broadcast;
    std::string hbAddress;        // empty: chosen by mode and listening address
    int hbPort = 5152;
    int hbPeriodMs = 4000;
    int hbCount = 3;              // periods without heartbeat before a client gives up

    // Exchange parameters handed to the clients (and used by the service).
    int retryCount = 2;
    int connectTimeoutMs = 3000;
    int ackTimeoutMs = 1000;

    // Operation.
    int logLevel = 1;
    std::string logFile;          // empty: standard error
    std::string pidFile;
    std::string configFile;
    int statsPort = 0;            // 0: no statistics page
};

enum class ParseResult { Run, Help, Version, Error };

// Reads the configuration file named by --config (or KORVANED_CONFIG), the
// environment and argv into options. On Error, error says why.
ParseResult ParseOptions(int argc, char** argv, ServiceOptions& options, std::string& error);

// The text of --help.
std::string OptionsHelp(const char* program);

// Whether the service listens on loopback only.
bool ListensOnLoopback(const ServiceOptions& options);

// The heartbeat's destination address for the options' mode: by default the
// broadcast address of the loopback network when listening on loopback (so
// that every application of this machine hears it and no other machine does),
// else the broadcast address of every network.
std::string HeartbeatAddress(const ServiceOptions& options);

#endif
