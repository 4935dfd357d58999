// pendrel_other_user_client: started by attack_posix_test.cpp as another user (nobody), it
// tries to reach a pipe endpoint of the test's user and says by its exit code how far it got.
//   pendrel_other_user_client <socket path>
// Exit codes: kRefusedAtConnect, kDropped, kGotData, kStillConnected (see below), 64 for a
// wrong command line.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr int kRefusedAtConnect = 10;  // connect() refused, by permissions (EACCES, EPERM)
constexpr int kDropped = 11;           // connected, then closed by the server without a byte
constexpr int kGotData = 1;            // the server sent something: it took us for its client
constexpr int kStillConnected = 2;     // neither dropped nor served within 5 s
constexpr int kOtherFailure = 12;      // connect() failed otherwise (printed)

int Run(const char* path) {
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
  if (fd < 0) return kOtherFailure;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    if (error == EACCES || error == EPERM) return kRefusedAtConnect;
    std::fprintf(stderr, "pendrel_other_user_client: connect: %s\n", std::strerror(error));
    return kOtherFailure;
  }
  // A forged answer, in case anybody reads it: an empty packet header and a document.
  std::string packet(8, '\0');
  packet += R"({"status":0,"Parameters":{"Command":"forged"}})";
  packet[4] = static_cast<char>(packet.size() - 8);
  ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL);
  pollfd ready{fd, POLLIN, 0};
  if (::poll(&ready, 1, 5000) <= 0) return kStillConnected;
  char byte = 0;
  const ssize_t got = ::recv(fd, &byte, 1, MSG_DONTWAIT);
  return got > 0 ? kGotData : kDropped;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 64;
  return Run(argv[1]);
}
