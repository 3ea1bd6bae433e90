// Which addresses may open a link: IPv4 networks written as CIDR blocks
// ("192.168.1.0/24", "10.1.2.3" for one address, "0.0.0.0/0" for any).
#ifndef KORVANED_ACCESSLIST_H
#define KORVANED_ACCESSLIST_H

#include <cstdint>
#include <string>
#include <vector>

struct Network {
    std::uint32_t address = 0;  // host byte order, host bits cleared
    int prefix = 32;
};

// False when text is not an IPv4 address with an optional /0 to /32.
bool ParseNetwork(const std::string& text, Network* network);
std::string NetworkText(const Network& network);

// address: network byte order, as the socket layer gives it.
bool IsAllowed(const std::vector<Network>& networks, std::uint32_t address);
// Dotted text of an address in network byte order.
std::string AddressText(std::uint32_t address);

// 127.0.0.0/8.
Network LoopbackNetwork();

#endif
