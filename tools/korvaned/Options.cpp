// The service's options from its configuration file, its environment and its
// command line.
#include "Options.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "ConfigFile.h"

namespace {

// Rising precedence: a source replaces what an earlier one set.
enum class Source { Default, File, Environment, CommandLine };

bool ParseInt(const char* text, int minimum, int maximum, int& value) {
    if (!text || !*text) return false;
    errno = 0;
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < minimum || v > maximum) return false;
    value = static_cast<int>(v);
    return true;
}

bool ParseFlag(const std::string& text, bool& value) {
    for (const char* yes : {"1", "yes", "true", "on"}) {
        if (text == yes) return value = true;
    }
    for (const char* no : {"0", "no", "false", "off"}) {
        if (text == no) return !(value = false);
    }
    return false;
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
    {"port", &ServiceOptions::port, 0, 65535},
    {"block-rows", &ServiceOptions::blockRows, 1, 10000},
    {"db-type", &ServiceOptions::dbType, INT_MIN, INT_MAX},
    {"max-clients", &ServiceOptions::maxClients, 1, 100000},
    {"max-connexions", &ServiceOptions::maxConnexions, 1, 100000},
    {"max-sockets", &ServiceOptions::maxSockets, 2, 100000},
    {"stop-timeout", &ServiceOptions::stopTimeoutMs, 0, 3600000},
    {"hb-port", &ServiceOptions::hbPort, 1, 65535},
    {"hb-period", &ServiceOptions::hbPeriodMs, 10, 3600000},
    {"hb-count", &ServiceOptions::hbCount, 1, 1000},
    {"retry", &ServiceOptions::retryCount, 1, 100},
    {"connect-timeout", &ServiceOptions::connectTimeoutMs, 1, 3600000},
    {"ack-timeout", &ServiceOptions::ackTimeoutMs, 1, 3600000},
    {"log-level", &ServiceOptions::logLevel, 0, 3},
    {"stats-port", &ServiceOptions::statsPort, 0, 65535},
};

struct TextOption {
    const char* name;
    std::string ServiceOptions::*field;
};

const TextOption kTextOptions[] = {
    {"listen", &ServiceOptions::listenAddress},
    {"port-file", &ServiceOptions::portFile},
    {"database", &ServiceOptions::databaseFile},
    {"odbc", &ServiceOptions::odbcConnection},
    {"sqlite-driver", &ServiceOptions::sqliteDriver},
    {"hb-address", &ServiceOptions::hbAddress},
    {"log-file", &ServiceOptions::logFile},
    {"pid-file", &ServiceOptions::pidFile},
};

// Options that take no value on the command line.
const char* const kFlags[] = {"read-only", "verbose"};
// Options read apart from the tables.
const char* const kOtherOptions[] = {"allow", "hb-mode"};

// Short spellings of the most used options.
const char* LongName(const char* arg) {
    if (std::strcmp(arg, "-p") == 0) return "--port";
    if (std::strcmp(arg, "-d") == 0) return "--database";
    if (std::strcmp(arg, "-h") == 0) return "--help";
    if (std::strcmp(arg, "-v") == 0) return "--verbose";
    return arg;
}

bool IsFlag(const std::string& name) {
    for (const char* f : kFlags) {
        if (name == f) return true;
    }
    return false;
}

class Settings {
public:
    explicit Settings(ServiceOptions& options) : o_(options) {}

    // Sets one option by its long name (without the dashes).
    bool Set(const std::string& name, const std::string& value, Source source, std::string& error) {
        for (const IntOption& i : kIntOptions) {
            if (name != i.name) continue;
            if (ParseInt(value.c_str(), i.minimum, i.maximum, o_.*i.field)) return true;
            error = "bad value for " + name + ": '" + value + "' (" + std::to_string(i.minimum) + " to " +
                    std::to_string(i.maximum) + ")";
            return false;
        }
        for (const TextOption& t : kTextOptions) {
            if (name != t.name) continue;
            o_.*t.field = value;
            return true;
        }
        if (name == "read-only" || name == "verbose") {
            bool on = false;
            if (!ParseFlag(value, on)) {
                error = "bad value for " + name + ": '" + value + "' (yes or no)";
                return false;
            }
            if (name == "read-only") o_.readOnly = on;
            else if (on) o_.logLevel = 2;
            return true;
        }
        if (name == "allow") return Allow(value, source, error);
        if (name == "hb-mode") {
            if (value == "broadcast") o_.hbMode = HeartbeatMode::Broadcast;
            else if (value == "multicast") o_.hbMode = HeartbeatMode::Multicast;
            else if (value == "unicast") o_.hbMode = HeartbeatMode::Unicast;
            else {
                error = "bad value for hb-mode: '" + value + "' (broadcast, multicast or unicast)";
                return false;
            }
            return true;
        }
        error = "unknown option '" + name + "'";
        return false;
    }

private:
    // Repeatable: the networks of one source add up, and a later source's
    // list replaces an earlier one's. Spaces or commas may also separate
    // networks (one environment variable holds a list).
    bool Allow(const std::string& value, Source source, std::string& error) {
        if (source != allowSource_) {
            o_.allowed.clear();
            allowSource_ = source;
        }
        std::size_t start = 0;
        bool any = false;
        while (start < value.size()) {
            const std::size_t end = value.find_first_of(" ,", start);
            const std::string item = value.substr(start, end == std::string::npos ? end : end - start);
            start = end == std::string::npos ? value.size() : end + 1;
            if (item.empty()) continue;
            Network n;
            if (!ParseNetwork(item, &n)) {
                error = "bad value for allow: '" + item + "' (an IPv4 network such as 192.168.1.0/24)";
                return false;
            }
            o_.allowed.push_back(n);
            any = true;
        }
        if (!any) error = "allow needs a network";
        return any;
    }

    ServiceOptions& o_;
    Source allowSource_ = Source::Default;
};

struct FileContext {
    Settings* settings;
    std::string* error;
};

int OnConfigSetting(void* user, const char* section, const char* name, const char* value) {
    FileContext* c = static_cast<FileContext*>(user);
    if (!c->error->empty()) return 0;  // inih reads on after an error: keep the first
    std::string key = name;
    // Spelled as on the command line, leading dashes allowed; the file may
    // put its settings under a [korvaned] section.
    key.erase(0, key.find_first_not_of('-'));
    if (*section != '\0' && std::strcmp(section, "korvaned") != 0) {
        *c->error = "unknown section [" + std::string(section) + "]";
        return 0;
    }
    if (key == "config" || key == "help" || key == "version") {
        *c->error = "'" + key + "' cannot be set in a configuration file";
        return 0;
    }
    return c->settings->Set(key, value, Source::File, *c->error) ? 1 : 0;
}

// KORVANED_ and the name in capitals with underscores: KORVANED_HB_PORT.
std::string EnvironmentName(const char* option) {
    std::string name = "KORVANED_";
    for (const char* p = option; *p; ++p) name += *p == '-' ? '_' : static_cast<char>(std::toupper(*p));
    return name;
}

bool ReadEnvironment(Settings& settings, std::string& error) {
    std::vector<const char*> names;
    for (const IntOption& o : kIntOptions) names.push_back(o.name);
    for (const TextOption& o : kTextOptions) names.push_back(o.name);
    names.insert(names.end(), std::begin(kFlags), std::end(kFlags));
    names.insert(names.end(), std::begin(kOtherOptions), std::end(kOtherOptions));
    for (const char* name : names) {
        const std::string variable = EnvironmentName(name);
        const char* value = std::getenv(variable.c_str());
        if (value == nullptr) continue;
        if (!settings.Set(name, value, Source::Environment, error)) {
            error = variable + ": " + error;
            return false;
        }
    }
    return true;
}

}  // namespace

ParseResult ParseOptions(int argc, char** argv, ServiceOptions& options, std::string& error) {
    // The command line is read twice: first for what decides whether the
    // other sources are read at all, then over them.
    std::vector<std::pair<std::string, std::string>> given;  // long name, value
    const char* configFromEnvironment = std::getenv("KORVANED_CONFIG");
    if (configFromEnvironment) options.configFile = configFromEnvironment;
    for (int i = 1; i < argc; ++i) {
        std::string name = LongName(argv[i]);
        if (name.compare(0, 2, "--") != 0 || name.size() == 2) {
            error = "unknown argument '" + std::string(argv[i]) + "' (see --help)";
            return ParseResult::Error;
        }
        name.erase(0, 2);
        std::string value;
        const std::size_t eq = name.find('=');
        const bool inlineValue = eq != std::string::npos;
        if (inlineValue) {
            value = name.substr(eq + 1);
            name.erase(eq);
        }
        if (name == "help") return ParseResult::Help;
        if (name == "version") return ParseResult::Version;
        if (!inlineValue) {
            if (IsFlag(name)) {
                value = "yes";
            } else if (i + 1 < argc) {
                value = argv[++i];
            } else {
                error = "option --" + name + " needs a value";
                return ParseResult::Error;
            }
        }
        if (name == "config") options.configFile = value;
        else given.emplace_back(name, value);
    }

    Settings settings(options);
    if (!options.configFile.empty()) {
        FileContext context{&settings, &error};
        const int line = ReadConfigFile(options.configFile, &OnConfigSetting, &context);
        if (line < 0) {
            error = "cannot read the configuration file '" + options.configFile + "'";
            return ParseResult::Error;
        }
        if (line > 0) {
            error = options.configFile + ":" + std::to_string(line) + ": " +
                    (error.empty() ? std::string("not a 'name = value' line") : error);
            return ParseResult::Error;
        }
    }
    if (!ReadEnvironment(settings, error)) return ParseResult::Error;
    for (const auto& option : given) {
        if (!settings.Set(option.first, option.second, Source::CommandLine, error)) {
            if (error.compare(0, 7, "unknown") == 0) error += " (see --help)";
            return ParseResult::Error;
        }
    }

    if (options.allowed.empty()) options.allowed.push_back(LoopbackNetwork());
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

bool ListensOnLoopback(const ServiceOptions& options) {
    Network listening;
    return ParseNetwork(options.listenAddress, &listening) && (listening.address >> 24) == 127;
}

std::string HeartbeatAddress(const ServiceOptions& options) {
    if (!options.hbAddress.empty()) return options.hbAddress;
    switch (options.hbMode) {
    case HeartbeatMode::Multicast: return "239.255.51.51";
    case HeartbeatMode::Unicast: return "127.0.0.1";
    case HeartbeatMode::Broadcast: break;
    }
    return ListensOnLoopback(options) ? "127.255.255.255" : "255.255.255.255";
}

std::string OptionsHelp(const char* program) {
    std::string p = program ? program : "korvaned";
    return "Usage: " + p + " [options]\n"
           "The Korvane service: serves the Korvane client library's applications over TCP\n"
           "and runs their requests on a database through ODBC.\n"
           "\n"
           "Every option can also be set in the configuration file (name = value, with the\n"
           "long name) or in a KORVANED_NAME environment variable (KORVANED_HB_PORT=5152);\n"
           "the environment overrides the file and the command line overrides both.\n"
           "      --config FILE       configuration file (also KORVANED_CONFIG)\n"
           "Listening:\n"
           "  -p, --port N            TCP port (default 5151; 0 lets the system choose)\n"
           "      --listen ADDR       local IPv4 address to listen on (default 127.0.0.1;\n"
           "                          0.0.0.0 for every interface)\n"
           "      --allow CIDR        network allowed to open links, e.g. 192.168.1.0/24;\n"
           "                          repeatable (default 127.0.0.0/8 only; 0.0.0.0/0: any)\n"
           "      --port-file PATH    write the port listened on to PATH once listening\n"
           "Database:\n"
           "  -d, --database FILE     SQLite database file (default korvane.db), through the\n"
           "                          SQLite ODBC driver\n"
           "      --odbc STRING       ODBC connection string, used instead of the SQLite file,\n"
           "                          e.g. \"DSN=sales\" or \"DRIVER={PostgreSQL Unicode};...\"\n"
           "      --sqlite-driver SO  path of the SQLite ODBC driver (default: searched)\n"
           "      --read-only         the database is only read: a SQLite file is opened\n"
           "                          read-only, PostgreSQL runs read-only transactions;\n"
           "                          other data sources are refused\n"
           "      --block-rows N      rows per block of a select (default 5000)\n"
           "      --db-type N         database type announced to the clients (default 0)\n"
           "Limits:\n"
           "      --max-clients N     applications at once (default 64); one more is\n"
           "                          refused with -54\n"
           "      --max-connexions N  logical connections at once (default 256)\n"
           "      --max-sockets N     TCP links of any kind at once (default 1024)\n"
           "      --stop-timeout MS   at SIGTERM or SIGINT, how long requests under way may\n"
           "                          run on before their links are cut (default 10000)\n"
           "Heartbeat (UDP datagrams of a bare message header):\n"
           "      --hb-mode MODE      broadcast (default), multicast or unicast\n"
           "      --hb-address ADDR   destination (default: 127.255.255.255 when listening on\n"
           "                          loopback, else 255.255.255.255; 239.255.51.51 for\n"
           "                          multicast, 127.0.0.1 for unicast)\n"
           "      --hb-port N         UDP port (default 5152)\n"
           "      --hb-period MS      period (default 4000)\n"
           "      --hb-count N        periods a client waits before it counts the link as\n"
           "                          lost (default 3)\n"
           "Exchange (also handed to the clients):\n"
           "      --retry N           attempts of an acknowledged send (default 2)\n"
           "      --connect-timeout MS  clients' connect time-out (default 3000)\n"
           "      --ack-timeout MS    acknowledgement wait (default 1000)\n"
           "Operation:\n"
           "      --log-file FILE     append the log to FILE (default: standard error);\n"
           "                          SIGHUP opens it again after a rotation\n"
           "      --log-level N       0 errors, 1 service events (default), 2 requests,\n"
           "                          3 details\n"
           "  -v, --verbose           same as --log-level 2\n"
           "      --pid-file FILE     write the process id to FILE once listening\n"
           "      --stats-port N      answer a plain-text statistics page on 127.0.0.1:N\n"
           "      --version           the version\n"
           "  -h, --help              this text\n"
           "SIGTERM and SIGINT stop the service: no new link is accepted, every link is\n"
           "closed once its request under way is answered, and the service exits with 0.\n";
}
