/* The command channel reading one request from a client that sends any bytes in any pieces. The
 * channel listens on a port the system picks; the client connects over the loopback, sends its pieces from a
 * thread of its own with the pauses the input asks for, then either waits for the reply, closes its sending
 * side and waits, or resets the connection. The HAL is empty: what is fuzzed here is the reading,
 * the handing over and the reply, not the objects.
 *
 * Input: one byte for the ending (0 wait, 1 half-close, 2 reset, modulo 3), then pieces of a length
 * byte, a pause byte (milliseconds before the piece, modulo 64) and that many bytes, at most 16
 * pieces; a piece cut short by the end of the input is sent as it is. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "cmd.h"
#include "fuzz_support.h"

namespace {

enum ending_t : uint8_t { WAITS, HALF_CLOSES, RESETS, ENDINGS };

constexpr size_t MAX_PIECES = 16;
constexpr uint8_t MAX_PAUSE_MS = 64;
constexpr int POLL_TIMEOUT_MS = 2000;

struct piece_t {
  useconds_t pause_us;
  std::string bytes;
};

struct client_t {
  ending_t ending;
  std::vector<piece_t> pieces;
  std::string reply;
  bool clean_end; /* the channel closed the connection after its reply */
};

cmd_t channel = {CMD_FRMT_JSON, CMD_IF_TCP, {{-1, 0}}, "cmd-json", CMD_OK};
uint16_t channel_port;

client_t parse(const uint8_t* data, size_t size) {
  client_t client = {static_cast<ending_t>(data[0] % ENDINGS), {}, "", false};
  size_t at = 1;
  while (at + 2 <= size && client.pieces.size() < MAX_PIECES) {
    const size_t length = std::min<size_t>(data[at], size - at - 2);
    const useconds_t pause_us = static_cast<useconds_t>(data[at + 1] % MAX_PAUSE_MS) * 1000;
    client.pieces.push_back({pause_us, std::string(reinterpret_cast<const char*>(data + at + 2), length)});
    at += 2 + length;
  }
  return client;
}

/* The client never waits longer for its reply than the channel could take to send one. */
int connect_client() {
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct timeval patience = {5, 0};
  struct sockaddr_in addr;
  memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(channel_port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (sock < 0 || setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)) != 0 ||
      connect(sock, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0)
    fuzz::die("could not connect to the command channel");
  return sock;
}

/* An abortive close: the channel sees a reset, not an end of stream. */
void reset(int sock) {
  struct linger abort_now = {1, 0};
  setsockopt(sock, SOL_SOCKET, SO_LINGER, &abort_now, sizeof(abort_now));
  close(sock);
}

void talk(int sock, client_t* client) {
  for (const piece_t& piece : client->pieces) {
    usleep(piece.pause_us);
    if (send(sock, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL) < 0) break;
  }
  if (client->ending == RESETS) {
    reset(sock);
    return;
  }
  if (client->ending == HALF_CLOSES) shutdown(sock, SHUT_WR);
  char chunk[512];
  ssize_t got;
  while ((got = recv(sock, chunk, sizeof(chunk), 0)) > 0)
    client->reply.append(chunk, static_cast<size_t>(got));
  client->clean_end = got == 0;
  close(sock);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::make_box_root();
  if (cmd_open(&channel) != CMD_OK) fuzz::die("could not open the command channel");
  struct sockaddr_in addr;
  socklen_t length = sizeof(addr);
  if (getsockname(channel.if_tcp.srv_sock, reinterpret_cast<struct sockaddr*>(&addr), &length) != 0)
    fuzz::die("could not find the command channel's port");
  channel_port = ntohs(addr.sin_port);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Run run;
  if (size < 1) return 0;
  client_t client = parse(data, size);
  const int sock = connect_client();
  std::thread sender(talk, sock, &client);
  const cmd_err_t err = cmd_poll(&channel, POLL_TIMEOUT_MS);
  sender.join();
  if (err != CMD_OK)
    fuzz::fail(std::string("the channel failed on a client's bytes: ") + cmd_strerror(&channel));
  /* A reply that arrived whole is one JSON object; a client that reset the connection gets none. */
  if (client.clean_end && !client.reply.empty() && !fuzz::reply_well_formed(client.reply.c_str()))
    fuzz::fail("the reply is not one JSON object of the protocol: " + client.reply);
  return 0;
}
