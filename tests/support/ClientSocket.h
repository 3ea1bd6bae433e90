// A socket of the library's own transport connected to a test peer on
// 127.0.0.1, closed when it goes out of scope.
#ifndef KVN_TESTS_SUPPORT_CLIENTSOCKET_H
#define KVN_TESTS_SUPPORT_CLIENTSOCKET_H

#include <korvane/platform/KvnTypes.h>

class ClientSocket {
public:
    // Connects with Socket_Client (3000 ms at most); the test fails when it
    // cannot, and Get() then gives INVALID_SOCKET.
    explicit ClientSocket(unsigned short port);
    ~ClientSocket();
    ClientSocket(const ClientSocket&) = delete;
    ClientSocket& operator=(const ClientSocket&) = delete;

    SOCKET Get() const { return sock_; }
    operator SOCKET() const { return sock_; }
    bool Valid() const;
    // Closes now (the peer sees the close).
    void Close();

private:
    bool socketLayer_;
    SOCKET sock_;
};

#endif
