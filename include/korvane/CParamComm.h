/// \file
/// CParamComm, the communication parameters.
#ifndef KORVANE_CPARAMCOMM_H
#define KORVANE_CPARAMCOMM_H

/// The communication parameters that the client and every message object
/// carry: time-outs and attempt counts of the exchange, and the coordinates
/// of the service's heartbeat. The service returns its own values in its
/// answer to the registration of the application (CKorvaneClient::Init);
/// until then the client uses the defaults below. The record is copied as a
/// whole: a message keeps a copy of its own (CMsgSocket::SetParamComm).
struct CParamComm {
    int nTimeOutConnect = 3000; ///< ms, every TCP connect to the service
    int nNbRetrySend = 2;       ///< attempts of an acknowledged send
    int nTimeOutAck = 1000;     ///< ms, upper bound of the acknowledgement wait
    int nParam3 = 0;            ///< kept as the service sent it; not read
    int nPeriodeHB = 4000;      ///< ms between two heartbeats
    int nNbPeriodeHB = 3;       ///< periods without heartbeat before a loss
    int nPortHB = 0;            ///< UDP port of the heartbeat
    int bMulticastHB = 0;       ///< non-zero: multicast group; 0: broadcast
    int nReserved = 0;          ///< neither set nor read
    /// Multicast group address, zero-terminated; when the service sent a text
    /// of 20 characters or more, its first 20 characters without terminator
    /// (the heartbeat supervision refuses such an address).
    wchar_t szAdresseHB[20] = {};
};

#endif
