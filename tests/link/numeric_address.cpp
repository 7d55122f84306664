// Addresses in figures and a socket: nothing here can ask for a name.
#include <nx/net/CNxInetAddr.h>
#include <nx/net/CNxSocket.h>

int main() {
    CNxInetAddr address;
    CNxSocketTcp listener;
    if (address.SetNumeric("127.0.0.1:0") != NX_OK || listener.Open(0, address) != 0) {
        return 1;
    }
    return listener.GetLocalAddr(address) == 0 ? 0 : 1;
}
