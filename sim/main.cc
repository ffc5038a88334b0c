// vodsim: one simulated cluster node in one process.  It serves the VLDB (with the VODB),
// the DLDB, the coordinator and, for every D-blade of its layout, the volume, incremental
// copy and LP management programs, each on a TCP port of its own registered with the
// local rpcbind.
//
// Each D-blade answers at its own address, as separate machines would: the port mapper
// keeps one port per program, so a D-blade program listens on that one port at every
// D-blade's address, and a connection is served as the D-blade whose address it came in
// on.  The node's own programs listen on every address.
//
// Calls are served one thread per connection rather than by svc_run(): a call held or
// delayed by an injected fault then stops only its own caller, as a slow server would.

#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <poll.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "coord.h"
#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "dldb_server.h"
#include "simcontrol.h"
#include "simfaults.h"
#include "simnode.h"
#include "vldb_server.h"
#include "vldbstore.h"
#include "volstore.h"

// The rpcgen dispatchers come without declarations.
extern "C" {
void vldb_prog_3(svc_req*, SVCXPRT*);
void dldb_prog_1(svc_req*, SVCXPRT*);
void coord_prog_1(svc_req*, SVCXPRT*);
void dblade_lpm_prog_1(svc_req*, SVCXPRT*);
void dblade_vol_prog_1(svc_req*, SVCXPRT*);
void dblade_incrcopy_prog_1(svc_req*, SVCXPRT*);
}

void simRegisterNodeCommands();  // node_commands.cc

namespace {

struct Program {
  const char* name;  // as its protocol file, the name faults use
  rpcprog_t prog;
  rpcvers_t vers;
  void (*dispatch)(svc_req*, SVCXPRT*);
  bool perDblade;  // one listening socket per D-blade address, else one on every address
};

const Program kPrograms[] = {
    {"vldb", VLDB_PROG, VLDB_VERS, vldb_prog_3, false},
    {"dldb", DLDB_PROG, DLDB_VERS, dldb_prog_1, false},
    {"coord", COORD_PROG, COORD_VERS, coord_prog_1, false},
    {"dblade_lpm", DBLADE_LPM_PROG, DBLADE_LPM_VERS, dblade_lpm_prog_1, true},
    {"dblade_vol", DBLADE_VOL_PROG, DBLADE_VOL_VERS, dblade_vol_prog_1, true},
    {"dblade_incrcopy", DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS, dblade_incrcopy_prog_1, true},
};

// One listening socket: a program, and the D-blade it serves (0 for the node's programs).
struct Listener {
  const Program* program;
  uint16_t did;
  int fd;
};

std::vector<Listener> gListeners;

int gSignalPipe[2] = {-1, -1};

void onSignal(int) {
  char c = 0;
  ssize_t ignored = write(gSignalPipe[1], &c, 1);
  (void)ignored;
}

struct Options {
  std::string dir = "/var/lib/vodsim";
  std::string config;
  std::string control;
  bool quiet = false;
  bool verbose = false;
};

void usage(FILE* to) {
  std::fprintf(to,
               "usage: vodsim [--dir DATA_DIR] [--config FILE] [--control SOCKET] [--quiet] [--verbose]\n"
               "  --dir      where the VLDB, the VODB and the volumes are kept (default /var/lib/vodsim)\n"
               "  --config   the node's layout (default: node1, D-blades 1 and 2, LPs lp1a lp1b lp2a lp2b)\n"
               "  --control  the control socket for vodsimctl (default DATA_DIR/control.sock)\n"
               "  --quiet    no start-up line\n"
               "  --verbose  write every call to stderr\n"
               "Runs in the foreground until SIGTERM or SIGINT.\n");
}

bool parseOptions(int argc, char** argv, Options* o) {
  static const option longOpts[] = {
      {"dir", required_argument, nullptr, 'd'},   {"config", required_argument, nullptr, 'c'},
      {"control", required_argument, nullptr, 's'}, {"quiet", no_argument, nullptr, 'q'},
      {"verbose", no_argument, nullptr, 'v'},     {"foreground", no_argument, nullptr, 'f'},
      {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "d:c:s:qvfh", longOpts, nullptr)) != -1) {
    switch (c) {
      case 'd': o->dir = optarg; break;
      case 'c': o->config = optarg; break;
      case 's': o->control = optarg; break;
      case 'q': o->quiet = true; break;
      case 'v': o->verbose = true; break;
      case 'f': break;  // always in the foreground; accepted for scripts that say so
      case 'h': usage(stdout); std::exit(0);
      default: return false;
    }
  }
  if (optind != argc) return false;
  if (o->control.empty()) o->control = o->dir + "/control.sock";
  return true;
}

bool makeDirs(const std::string& path) {
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i < path.size() && path[i] != '/') continue;
    std::string part = path.substr(0, i);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// A listening TCP socket at addr (host order) and port (0: the kernel's choice); -1 with
// errno set on failure.
int listenAt(uint32_t addr, uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (fd < 0) return -1;
  int one = 1;
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(addr);
  sa.sin_port = htons(port);
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, SOMAXCONN) != 0) {
    int e = errno;
    close(fd);
    errno = e;
    return -1;
  }
  return fd;
}

uint16_t portOf(int fd) {
  sockaddr_in sa{};
  socklen_t len = sizeof sa;
  getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
  return ntohs(sa.sin_port);
}

// The program's listening sockets: one on every address, or one per D-blade address, all
// on the port of the first (the kernel's choice; another is tried when a later address
// has it taken).  Registered once with rpcbind.
bool listenFor(const Program& p, const std::vector<SimDblade>& dblades, std::string* err) {
  std::vector<Listener> made;
  auto closeMade = [&] {
    for (const Listener& l : made) close(l.fd);
    made.clear();
  };
  for (int attempt = 0; attempt < 20 && made.empty(); ++attempt) {
    if (!p.perDblade) {
      int fd = listenAt(INADDR_ANY, 0);
      if (fd < 0) {
        *err = std::strerror(errno);
        return false;
      }
      made.push_back({&p, 0, fd});
      break;
    }
    uint16_t port = 0;
    for (const SimDblade& d : dblades) {
      int fd = listenAt(d.addr, port);
      if (fd < 0) {
        int e = errno;
        closeMade();
        if (e != EADDRINUSE) {
          *err = "D-blade " + std::to_string(d.did) + " at " + simAddrText(d.addr) + ": " +
                 std::strerror(e);
          return false;
        }
        break;
      }
      if (port == 0) port = portOf(fd);
      made.push_back({&p, d.did, fd});
    }
  }
  if (made.empty()) {
    *err = "no port free at every D-blade's address";
    return false;
  }
  // The transport registers the port; the accept loop takes the connections itself.
  SVCXPRT* xprt = svctcp_create(made.front().fd, 0, 0);
  pmap_unset(p.prog, p.vers);
  if (!xprt || !svc_register(xprt, p.prog, p.vers, p.dispatch, IPPROTO_TCP)) {
    *err = "cannot register with rpcbind (is it running?)";
    closeMade();
    return false;
  }
  gListeners.insert(gListeners.end(), made.begin(), made.end());
  return true;
}

// The library destroys a connection's transport, and closes its socket, inside
// svc_getreq_common() when the connection dies. From then on the socket's number is free,
// and another thread (one opening a volume's folder, the accept loop) may be given it at
// once: the serving thread must learn of the end without touching that number again. So
// every connection's transport gets the library's own operations with the destroy step
// wrapped to note the end for the thread that runs it. Set once by the accept loop before
// the first serving thread starts.
using XpOps = std::remove_const_t<std::remove_pointer_t<decltype(SVCXPRT::xp_ops)>>;
const XpOps* gLibConnOps = nullptr;
XpOps gConnOps;
thread_local bool tConnectionGone = false;

void destroyConnection(SVCXPRT* xprt) {
  tConnectionGone = true;
  gLibConnOps->xp_destroy(xprt);
}

// False when the transport is not one of the library's connection transports as the
// first one was (then its end could not be noticed).
bool noteConnectionEnd(SVCXPRT* xprt) {
  if (gLibConnOps == nullptr) {
    gLibConnOps = xprt->xp_ops;
    gConnOps = *gLibConnOps;
    gConnOps.xp_destroy = destroyConnection;
  }
  if (xprt->xp_ops != gLibConnOps) return false;
  xprt->xp_ops = &gConnOps;
  return true;
}

// Serves one connection until the client goes.
void serveConnection(int fd, uint16_t did) {
  simSetServingDblade(did);
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    int n = poll(&p, 1, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return;
    svc_getreq_common(fd);
    if (tConnectionGone) return;
  }
}

void resetConnection(int fd) {
  linger l{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
  close(fd);
}

void acceptLoop() {
  std::vector<pollfd> fds;
  for (const Listener& l : gListeners) fds.push_back({l.fd, POLLIN, 0});
  fds.push_back({gSignalPipe[0], POLLIN, 0});
  for (;;) {
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      std::perror("vodsim: poll");
      return;
    }
    if (fds.back().revents) return;
    for (size_t i = 0; i + 1 < fds.size(); ++i) {
      if (!fds[i].revents) continue;
      const Listener& l = gListeners[i];
      int fd = accept4(l.fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      if (simRefuseConnection(l.program->name, l.did)) {
        resetConnection(fd);
        continue;
      }
      SVCXPRT* xprt = svc_fd_create(fd, 0, 0);
      if (!xprt) {
        close(fd);
        continue;
      }
      if (!noteConnectionEnd(xprt)) {
        std::fprintf(stderr, "vodsim: a connection transport of an unknown kind; dropped\n");
        svc_destroy(xprt);
        continue;
      }
      std::thread(serveConnection, fd, l.did).detach();
    }
  }
}

void unregisterAll() {
  for (const Program& p : kPrograms) pmap_unset(p.prog, p.vers);
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  if (!parseOptions(argc, argv, &opt)) {
    usage(stderr);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  if (pipe2(gSignalPipe, O_CLOEXEC) != 0) {
    std::perror("vodsim: pipe");
    return 1;
  }
  signal(SIGTERM, onSignal);
  signal(SIGINT, onSignal);

  SimNode& node = SimNode::get();
  std::string err;
  if (!makeDirs(opt.dir)) {
    std::fprintf(stderr, "vodsim: cannot make %s: %s\n", opt.dir.c_str(), std::strerror(errno));
    return 1;
  }
  node.setDataDir(opt.dir);
  if (!node.loadLayout(opt.config, &err) || !VldbStore::get().open(opt.dir + "/vldb.sqlite", &err)) {
    std::fprintf(stderr, "vodsim: %s\n", err.c_str());
    return 1;
  }
  VldbStore::get().mergeStoredLps(node);

  simFaultsRegisterCommands();
  simRegisterNodeCommands();
  simDbladeInit();
  simTraceCalls(opt.verbose);
  if (!simControlStart(opt.control, &err)) {
    std::fprintf(stderr, "vodsim: %s\n", err.c_str());
    return 1;
  }
  for (const Program& p : kPrograms) {
    if (!listenFor(p, node.dblades, &err)) {
      std::fprintf(stderr, "vodsim: cannot serve %s: %s\n", p.name, err.c_str());
      unregisterAll();
      simControlStop();
      return 1;
    }
  }
  if (!opt.quiet) {
    std::printf("vodsim: node %s serving; data in %s; control socket %s\n", node.nodeName().c_str(),
                opt.dir.c_str(), opt.control.c_str());
    std::fflush(stdout);
  }

  acceptLoop();

  unregisterAll();
  simControlStop();
  // Calls may still be running: close the database between two of them and leave without
  // running destructors under their feet.
  std::lock_guard<std::mutex> g(node.lock());
  VldbStore::get().close();
  std::fflush(nullptr);
  _exit(0);
}
