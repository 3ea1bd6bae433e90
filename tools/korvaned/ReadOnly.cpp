// Read-only data sources.
#include "ReadOnly.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

std::string ReadOnlySqliteFile(const std::string& path) {
    // In a URI, '%', '?' and '#' (and spaces, for readers of the log) are
    // written as escapes; a relative path stays relative.
    std::string uri = "file:";
    for (const char c : path) {
        if (c == '%' || c == '?' || c == '#' || c == ' ') {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", static_cast<unsigned char>(c));
            uri += escape;
        } else {
            uri += c;
        }
    }
    return uri + "?mode=ro";
}

std::string ReadOnlyOdbcConnection(const std::string& connection, std::string* how) {
    std::string lower = connection;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::size_t driver = lower.find("driver=");
    const bool postgres = driver != std::string::npos && (lower.find("psqlodbc", driver) != std::string::npos ||
                                                          lower.find("postgresql", driver) != std::string::npos);
    if (!postgres) {
        *how = "the service can make a SQLite file or a PostgreSQL database (psqlODBC, named by DRIVER=) "
               "read-only; for another data source, connect as a database user that may only read";
        return "";
    }
    *how = "PostgreSQL sessions run read-only transactions";
    std::string result = connection;
    if (!result.empty() && result.back() != ';') result += ';';
    // Run by the driver on every new connection, before any request.
    return result + "ConnSettings={SET SESSION CHARACTERISTICS AS TRANSACTION READ ONLY};";
}
