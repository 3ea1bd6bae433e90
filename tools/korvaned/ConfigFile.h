// Reading the service's configuration file: "name = value" lines, '#' or ';'
// comments, an optional [korvaned] section. The parsing is inih's.
#ifndef KORVANED_CONFIGFILE_H
#define KORVANED_CONFIGFILE_H

#include <string>

// Called for every setting; returns 0 to refuse it (the reading then reports
// its line).
typedef int (*ConfigHandler)(void* user, const char* section, const char* name, const char* value);

// 0 when every line was read and accepted, the number of the first line that
// was not, -1 when the file cannot be opened.
int ReadConfigFile(const std::string& path, ConfigHandler handler, void* user);

#endif
