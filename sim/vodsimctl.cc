// vodsimctl: the control tool of the simulated node.  It sends its words to vodsim's
// control socket and prints the reply: on stdout and exit 0 on success, on stderr and
// exit 1 when the command failed, exit 2 when the simulator cannot be reached.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simcontrol.h"

namespace {

const char* kUsage =
    "usage: vodsimctl [--control SOCKET | --dir DATA_DIR] COMMAND [ARG]...\n"
    "  The socket is, in order: --control, DATA_DIR/control.sock, $VODSIM_CONTROL,\n"
    "  /var/lib/vodsim/control.sock.  'vodsimctl help' lists the simulator's commands.\n";

int printReply(const std::string& reply) {
  size_t nl = reply.find('\n');
  std::string status = reply.substr(0, nl);
  std::string text = nl == std::string::npos ? "" : reply.substr(nl + 1);
  if (!text.empty() && text.back() != '\n') text += '\n';
  if (status == "OK") {
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  if (status == "ERR") {
    std::fputs(text.c_str(), stderr);
    return 1;
  }
  std::fprintf(stderr, "vodsimctl: malformed reply from the simulator\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path;
  const char* env = std::getenv("VODSIM_CONTROL");
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    if ((a == "--control" || a == "--dir") && i + 1 < argc) {
      path = a == "--dir" ? std::string(argv[i + 1]) + "/control.sock" : argv[i + 1];
      ++i;
    } else if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      break;
    } else {
      break;
    }
  }
  if (path.empty()) path = env && *env ? env : "/var/lib/vodsim/control.sock";
  std::vector<std::string> words(argv + i, argv + argc);
  if (words.empty() || words[0] == "-h" || words[0] == "--help") words = {"help"};

  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    std::fprintf(stderr, "vodsimctl: socket path too long: %s\n", path.c_str());
    return 2;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    std::fprintf(stderr, "vodsimctl: cannot reach the simulator at %s: %s\n", path.c_str(), std::strerror(errno));
    if (words[0] == "help") std::fputs(kUsage, stderr);
    return 2;
  }
  std::string req = simControlEncode(words);
  for (size_t off = 0; off < req.size();) {
    ssize_t n = send(fd, req.data() + off, req.size() - off, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      std::fprintf(stderr, "vodsimctl: send: %s\n", std::strerror(errno));
      return 2;
    }
    off += static_cast<size_t>(n);
  }
  std::string reply;
  char buf[65536];
  for (;;) {
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return printReply(reply);
}
