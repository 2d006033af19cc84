// on_demand: the dispatcher of every packet read from the DG. The connection thread hands
// each packet to read_msg_nio, which picks the handler by message type.
// Thread safety: runs on the connection thread (the handlers it calls assume so).
#pragma once

// Packet callback of the connection's readers: packet points at the main header (sub
// header at 12, body at 23; the reader guarantees a length field of at least 11),
// socket_pointer at the socket descriptor. Returns 0, or the handler's negative result,
// which makes the connection thread drop the connection.
int read_msg_nio(char *packet, void *socket_pointer);

// Calls the handler of message_type with the body (body_length bytes). Returns the
// handler's result; 1 for a type without a handler (logged at ERROR with its number).
int process_msg_common(int socket, const char *sub_header, int message_type, const char *body, int body_length);
