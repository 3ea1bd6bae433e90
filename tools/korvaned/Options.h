// The service's configuration, from its command line.
#ifndef KORVANED_OPTIONS_H
#define KORVANED_OPTIONS_H

#include <string>

enum class HeartbeatMode { Broadcast, Multicast, Unicast };

struct ServiceOptions {
    // Listening.
    std::string listenAddress = "0.0.0.0";
    int port = 5151;              // 0: the system picks a free port
    std::string portFile;         // where to write the port once listening

    // Database: a SQLite file through the SQLite ODBC driver, unless an ODBC
    // connection string is given.
    std::string databaseFile = "korvane.db";
    std::string odbcConnection;
    std::string sqliteDriver;     // empty: searched in the usual places
    int blockRows = 100;          // rows per block of a select
    int dbType = 0;               // database type announced to the clients

    // Limits.
    int maxClients = 64;          // applications registered at once
    int maxConnexions = 256;      // logical connections open at once
    int maxSockets = 1024;        // links of any kind at once

    // Heartbeat.
    HeartbeatMode hbMode = HeartbeatMode::Broadcast;
    std::string hbAddress;        // empty: 255.255.255.255 or 239.255.51.51 by mode
    int hbPort = 5152;
    int hbPeriodMs = 4000;
    int hbCount = 3;              // periods without heartbeat before a client gives up

    // Exchange parameters handed to the clients (and used by the service).
    int retryCount = 2;
    int connectTimeoutMs = 3000;
    int ackTimeoutMs = 1000;

    int logLevel = 1;
};

enum class ParseResult { Run, Help, Error };

// Reads argv into options. On Error, error says why.
ParseResult ParseOptions(int argc, char** argv, ServiceOptions& options, std::string& error);

// The text of --help.
std::string OptionsHelp(const char* program);

// The heartbeat's destination address for the options' mode.
std::string HeartbeatAddress(const ServiceOptions& options);

#endif
