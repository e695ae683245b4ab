#ifndef INET_H
#define INET_H

#include <stdint.h>
#include <sys/socket.h>

#define INET_BACKLOG 1
#define INET_PORT_STR_LEN 6
#define INET_PORT_MIN 0
#define INET_PORT_MAX 65535

char* inet_port_to_string(char* str_port, uint16_t port);
int inet_create_tcp_server_socket(const char* str_port, int flags);
int inet_accept_tcp_client(int srv_sock, struct sockaddr* addr, socklen_t* length_ptr, int flags);
int inet_create_tcp_client_socket(const char* str_addr, const char* str_port, int flags);
int inet_close_socket(int sock);

#endif
