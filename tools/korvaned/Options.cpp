// Command-line options of the service.
#include "Options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

bool ParseInt(const char* text, int minimum, int maximum, int& value) {
    if (!text || !*text) return false;
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < minimum || v > maximum) return false;
    value = static_cast<int>(v);
    return true;
}

struct IntOption {
    const char* name;
    int ServiceOptions::*field;
    int minimum;
    int maximum;
};

// The wire limits bound some of these: a heartbeat port is 16 bits, a block
// must fit the 50000 values of a message, and a client's waits are ints.
const IntOption kIntOptions[] = {
    {"--port", &ServiceOptions::port, 0, 65535},
    {"--block-rows", &ServiceOptions::blockRows, 1, 10000},
    {"--db-type", &ServiceOptions::dbType, INT_MIN, INT_MAX},
    {"--max-clients", &ServiceOptions::maxClients, 1, 100000},
    {"--max-connexions", &ServiceOptions::maxConnexions, 1, 100000},
    {"--max-sockets", &ServiceOptions::maxSockets, 2, 100000},
    {"--hb-port", &ServiceOptions::hbPort, 1, 65535},
    {"--hb-period", &ServiceOptions::hbPeriodMs, 10, 3600000},
    {"--hb-count", &ServiceOptions::hbCount, 1, 1000},
    {"--retry", &ServiceOptions::retryCount, 1, 100},
    {"--connect-timeout", &ServiceOptions::connectTimeoutMs, 1, 3600000},
    {"--ack-timeout", &ServiceOptions::ackTimeoutMs, 1, 3600000},
    {"--log-level", &ServiceOptions::logLevel, 0, 3},
};

struct TextOption {
    const char* name;
    std::string ServiceOptions::*field;
};

const TextOption kTextOptions[] = {
    {"--listen", &ServiceOptions::listenAddress},
    {"--port-file", &ServiceOptions::portFile},
    {"--database", &ServiceOptions::databaseFile},
    {"--odbc", &ServiceOptions::odbcConnection},
    {"--sqlite-driver", &ServiceOptions::sqliteDriver},
    {"--hb-address", &ServiceOptions::hbAddress},
};

// Short spellings of the most used options.
const char* LongName(const char* arg) {
    if (std::strcmp(arg, "-p") == 0) return "--port";
    if (std::strcmp(arg, "-d") == 0) return "--database";
    if (std::strcmp(arg, "-h") == 0) return "--help";
    if (std::strcmp(arg, "-v") == 0) return "--verbose";
    return arg;
}

}  // namespace

ParseResult ParseOptions(int argc, char** argv, ServiceOptions& options, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string name = LongName(argv[i]);
        std::string value;
        bool hasInlineValue = false;
        const std::size_t eq = name.find('=');
        if (name.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            hasInlineValue = true;
        }
        if (name == "--help") return ParseResult::Help;
        if (name == "--verbose") {
            options.logLevel = 2;
            continue;
        }
        auto takeValue = [&](std::string& out) {
            if (hasInlineValue) {
                out = value;
                return true;
            }
            if (i + 1 >= argc) {
                error = "option " + name + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        bool known = false;
        for (const IntOption& o : kIntOptions) {
            if (name != o.name) continue;
            known = true;
            std::string text;
            if (!takeValue(text)) return ParseResult::Error;
            if (!ParseInt(text.c_str(), o.minimum, o.maximum, options.*o.field)) {
                error = "bad value for " + name + ": '" + text + "' (" + std::to_string(o.minimum) +
                        " to " + std::to_string(o.maximum) + ")";
                return ParseResult::Error;
            }
        }
        for (const TextOption& o : kTextOptions) {
            if (name != o.name) continue;
            known = true;
            if (!takeValue(options.*o.field)) return ParseResult::Error;
        }
        if (name == "--hb-mode") {
            known = true;
            std::string mode;
            if (!takeValue(mode)) return ParseResult::Error;
            if (mode == "broadcast") options.hbMode = HeartbeatMode::Broadcast;
            else if (mode == "multicast") options.hbMode = HeartbeatMode::Multicast;
            else if (mode == "unicast") options.hbMode = HeartbeatMode::Unicast;
            else {
                error = "bad value for --hb-mode: '" + mode + "' (broadcast, multicast or unicast)";
                return ParseResult::Error;
            }
        }
        if (!known) {
            error = "unknown option '" + std::string(argv[i]) + "' (see --help)";
            return ParseResult::Error;
        }
    }
    if (options.hbMode == HeartbeatMode::Unicast && options.hbAddress.empty()) {
        options.hbAddress = "127.0.0.1";
    }
    // The clients keep the heartbeat address in 20 characters with the terminator.
    if (HeartbeatAddress(options).size() > 19) {
        error = "--hb-address is longer than 19 characters";
        return ParseResult::Error;
    }
    return ParseResult::Run;
}

std::string HeartbeatAddress(const ServiceOptions& options) {
    if (!options.hbAddress.empty()) return options.hbAddress;
    switch (options.hbMode) {
    case HeartbeatMode::Multicast: return "239.255.51.51";
    case HeartbeatMode::Unicast: return "127.0.0.1";
    case HeartbeatMode::Broadcast: break;
    }
    return "255.255.255.255";
}

std::string OptionsHelp(const char* program) {
    std::string p = program ? program : "korvaned";
    return "Usage: " + p + " [options]\n"
           "The Korvane service: serves the Korvane client library's applications over TCP\n"
           "and runs their requests on a database through ODBC.\n"
           "\n"
           "Listening:\n"
           "  -p, --port N            TCP port (default 5151; 0 lets the system choose)\n"
           "      --listen ADDR       local IPv4 address to listen on (default 0.0.0.0)\n"
           "      --port-file PATH    write the port listened on to PATH once listening\n"
           "Database:\n"
           "  -d, --database FILE     SQLite database file (default korvane.db), through the\n"
           "                          SQLite ODBC driver\n"
           "      --odbc STRING       ODBC connection string, used instead of the SQLite file,\n"
           "                          e.g. \"DSN=sales\" or \"DRIVER={PostgreSQL Unicode};...\"\n"
           "      --sqlite-driver SO  path of the SQLite ODBC driver (default: searched)\n"
           "      --block-rows N      rows per block of a select (default 100)\n"
           "      --db-type N         database type announced to the clients (default 0)\n"
           "Limits:\n"
           "      --max-clients N     applications at once (default 64); one more is\n"
           "                          refused with -54\n"
           "      --max-connexions N  logical connections at once (default 256)\n"
           "      --max-sockets N     TCP links of any kind at once (default 1024)\n"
           "Heartbeat (UDP datagrams of a bare message header):\n"
           "      --hb-mode MODE      broadcast (default), multicast or unicast\n"
           "      --hb-address ADDR   destination (default 255.255.255.255, 239.255.51.51\n"
           "                          for multicast, 127.0.0.1 for unicast)\n"
           "      --hb-port N         UDP port (default 5152)\n"
           "      --hb-period MS      period (default 4000)\n"
           "      --hb-count N        periods a client waits before it counts the link as\n"
           "                          lost (default 3)\n"
           "Exchange (also handed to the clients):\n"
           "      --retry N           attempts of an acknowledged send (default 2)\n"
           "      --connect-timeout MS  clients' connect time-out (default 3000)\n"
           "      --ack-timeout MS    acknowledgement wait (default 1000)\n"
           "Log (standard error):\n"
           "      --log-level N       0 errors, 1 service events (default), 2 requests,\n"
           "                          3 details\n"
           "  -v, --verbose           same as --log-level 2\n"
           "  -h, --help              this text\n";
}
