// A transport without sockets for the fuzz targets of the exchange: what the
// peer "sends" is the fuzz input, read in order; what the library sends is
// recorded. A read that finds fewer bytes than it wants returns what there is
// at once, as a real read does when its time budget runs out, so that a
// target runs at memory speed.
#ifndef KORVANE_FUZZ_FAKETRANSPORT_H
#define KORVANE_FUZZ_FAKETRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzzwire {

struct Stream {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::size_t pos = 0;
    std::vector<std::uint8_t> sent;
    bool sendFails = false;
    // Every read is that of an acknowledgement, and an acceptance comes: for
    // a target that hands the messages over itself and only sends answers.
    bool autoAck = false;

    std::size_t Left() const { return size - pos; }
};

// The stream the transport functions use; set up by each run.
Stream& Current();

}  // namespace fuzzwire

#endif
