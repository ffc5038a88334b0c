// The simulator's connections: each is served on a thread of its own, which must end when
// its client goes, whatever the other threads do with descriptors meanwhile (the library
// closes the socket as it destroys the transport, and the number is given out again at
// once). Under ThreadSanitizer a serving thread that touched the number after that is a
// race report in the simulator's log, which fails the test at tear-down.

#include <arpa/inet.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "dldb_server.h"
#include "simtest.h"
#include "util/xdrproc.h"

using namespace simtest;

namespace {

// Threads of a process; -1 when it cannot be read.
int threadsOf(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  while (in >> key) {
    if (key == "Threads:") {
      int n = -1;
      in >> n;
      return n;
    }
  }
  return -1;
}

// The DLDB program's port, from the port mapper.
unsigned short dldbPort() {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return pmap_getport(&addr, DLDB_PROG, DLDB_VERS, IPPROTO_TCP);
}

// A null call on a connection of its own to port. The address is given, as vod gives
// it: clnt_create() looks the host up through buffers that the library shares between
// threads.
bool nullCallOnANewConnection(unsigned short port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  int sock = RPC_ANYSOCK;
  CLIENT* c = clnttcp_create(&addr, DLDB_PROG, DLDB_VERS, &sock, 0, 0);
  if (c == nullptr) return false;
  timeval tv{10, 0};
  clnt_stat st = clnt_call(c, NULLPROC, xdrProc(xdr_void), nullptr, xdrProc(xdr_void), nullptr, tv);
  clnt_destroy(c);
  return st == RPC_SUCCESS;
}

class ConnectionTest : public SimTest {};

TEST_F(ConnectionTest, ClientsThatComeAndGoTakeTheirServingThreadsWithThem) {
  const int before = threadsOf(sim->pid());
  ASSERT_GT(before, 0);
  const unsigned short port = dldbPort();
  ASSERT_NE(port, 0);
  // Several clients at once: while one connection's thread ends, the accept loop is
  // handing out descriptors to the next ones.
  constexpr int kClients = 4, kCallsEach = 25;
  std::vector<int> answered(kClients, 0);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i)
    clients.emplace_back([&answered, i, port] {
      for (int k = 0; k < kCallsEach; ++k) answered[i] += nullCallOnANewConnection(port) ? 1 : 0;
    });
  for (std::thread& t : clients) t.join();
  for (int i = 0; i < kClients; ++i) EXPECT_EQ(answered[i], kCallsEach) << "client " << i;

  EXPECT_TRUE(pollUntil([&] { return threadsOf(sim->pid()) <= before; }, 10))
      << "threads before: " << before << ", now: " << threadsOf(sim->pid());
  EXPECT_TRUE(nullCallOnANewConnection(port));
}

}  // namespace
