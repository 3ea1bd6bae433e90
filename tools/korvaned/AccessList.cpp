// The networks allowed to open links.
#include "AccessList.h"

#include <cstdio>

namespace {

std::uint32_t Mask(int prefix) { return prefix == 0 ? 0u : ~0u << (32 - prefix); }

// Network byte order to host order, without the socket headers.
std::uint32_t HostOrder(std::uint32_t address) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(&address);
    return static_cast<std::uint32_t>(b[0]) << 24 | static_cast<std::uint32_t>(b[1]) << 16 |
           static_cast<std::uint32_t>(b[2]) << 8 | b[3];
}

}  // namespace

bool ParseNetwork(const std::string& text, Network* network) {
    // Four decimal parts of one to three digits, then optionally a prefix
    // length of one or two digits; nothing else, not even spaces.
    const char* p = text.c_str();
    auto number = [&p](int maxDigits, unsigned maximum, unsigned* value) {
        int digits = 0;
        *value = 0;
        while (*p >= '0' && *p <= '9' && digits < maxDigits) *value = *value * 10 + (*p++ - '0'), ++digits;
        return digits > 0 && *value <= maximum;
    };
    std::uint32_t address = 0;
    for (int i = 0; i < 4; ++i) {
        unsigned part = 0;
        if (!number(3, 255, &part) || (i < 3 && *p++ != '.')) return false;
        address = address << 8 | part;
    }
    unsigned prefix = 32;
    if (*p == '/' && (++p, !number(2, 32, &prefix))) return false;
    if (*p != '\0') return false;
    network->prefix = static_cast<int>(prefix);
    network->address = address & Mask(network->prefix);
    return true;
}

std::string NetworkText(const Network& n) {
    char text[24];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u/%d", n.address >> 24, (n.address >> 16) & 255,
                  (n.address >> 8) & 255, n.address & 255, n.prefix);
    return text;
}

bool IsAllowed(const std::vector<Network>& networks, std::uint32_t address) {
    const std::uint32_t host = HostOrder(address);
    for (const Network& n : networks) {
        if ((host & Mask(n.prefix)) == n.address) return true;
    }
    return false;
}

std::string AddressText(std::uint32_t address) {
    const std::uint32_t h = HostOrder(address);
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", h >> 24, (h >> 16) & 255, (h >> 8) & 255, h & 255);
    return text;
}

Network LoopbackNetwork() {
    Network n;
    n.address = 127u << 24;
    n.prefix = 8;
    return n;
}
