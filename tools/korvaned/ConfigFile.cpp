// The configuration file, through inih.
#include "ConfigFile.h"

#include <ini.h>

int ReadConfigFile(const std::string& path, ConfigHandler handler, void* user) {
    return ini_parse(path.c_str(), handler, user);
}
