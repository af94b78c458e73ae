/* Client-side internals reached by the tests. Not installed. */
#ifndef PARA_CLIENT_INTERNAL_H
#define PARA_CLIENT_INTERNAL_H

#include "para_internal.h"

/* Destination port of the client datagrams (PARA_SERVER_PORT unless a test
 * points them at a receiver of its own). */
void para_client_set_send_port(int port);
/* The sending socket, -1 before Send_Initial. */
int para_client_send_socket(void);
/* Prefix of the shared memory object names ("/para_share_" by default),
 * so tests can work beside a running device. At most 31 characters. */
void para_share_set_name_prefix(const char* prefix);

#endif
