/*
 * How the appliance's servers take their address. Left to itself, cpp-httplib lets any number of
 * processes of one user listen on the same address, and the kernel deals their requests out among
 * them: a second appliance would answer for the first one half of the time.
 */
#ifndef CORVANE_APPLIANCE_SERVER_SOCKET_OPTIONS_H
#define CORVANE_APPLIANCE_SERVER_SOCKET_OPTIONS_H

#include <sys/socket.h>

namespace corvane::appliance {

/* An address that is free, though connections of an ended process may linger on it. */
inline void takeAddressAlone(int socket) {
    const int yes = 1;
    (void)setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

} // namespace corvane::appliance

#endif
