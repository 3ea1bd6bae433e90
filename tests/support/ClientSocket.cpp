// The client side of a link to a test peer.
#include "support/ClientSocket.h"

#include <gtest/gtest.h>

#include "net/Transport.h"
#include "platform/Sockets.h"

ClientSocket::ClientSocket(unsigned short port) : socketLayer_(SockInitWinSock() == 1) {
    EXPECT_TRUE(socketLayer_) << "SockInitWinSock failed";
    char reason[128] = {};
    sock_ = Socket_Client("127.0.0.1", port, 3000, reason);
    EXPECT_NE(INVALID_SOCKET, sock_) << "cannot connect to the peer on port " << port << ": "
                                     << reason;
}

ClientSocket::~ClientSocket() {
    Close();
    if (socketLayer_) SockCloseWinSock();
}

bool ClientSocket::Valid() const { return sock_ != INVALID_SOCKET; }

void ClientSocket::Close() {
    if (sock_ != INVALID_SOCKET) KvnCloseSocket(sock_);
    sock_ = INVALID_SOCKET;
}
