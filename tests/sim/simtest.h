// Test fixture for the simulated node: every test gets a fresh vodsim (its own data dir)
// inside the node sandbox of the integration tests (network, mount and pid namespaces
// with their own rpcbind; sim_main.cc enters it), RPC clients to its programs, and
// vodsimctl.
//
// Nothing here is thread-safe except where said: one test thread drives a SimProcess.
#ifndef TESTS_SIM_SIMTEST_H
#define TESTS_SIM_SIMTEST_H

#include <gtest/gtest.h>
#include <rpc/rpc.h>
#include <sys/types.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "node.h"

namespace simtest {

// The node sandbox, pollUntil and runProgram are the integration tests' own.
using vodtest::pollUntil;
using vodtest::runProgram;
using vodtest::RunResult;
inline bool sandboxed() { return vodtest::Node::sandboxed(); }
inline const std::string& whyNotSandboxed() { return vodtest::Node::whyNotSandboxed(); }

// The default layout's LP ids: D-blade byte, LP letter byte (0A, 0B), zeros.
extern const unsigned char kLp1a[16], kLp1b[16], kLp2a[16], kLp2b[16];

// Where D-blade did of the default layout (and of the sandbox's dblade<did> names)
// answers: 127.0.0.<did>.  The node's own programs answer at 127.0.0.1 too.
std::string dbladeAddress(unsigned did);

// A writable copy of an LP id for a call that takes one as its whole argument: the XDR
// filter for u_char stores every element back, even when it only encodes.
struct LpArg {
  explicit LpArg(const unsigned char* id) { std::memcpy(b, id, 16); }
  u_char b[16];
};

// One vodsim process over one data dir.
class SimProcess {
 public:
  explicit SimProcess(std::string dir) : _dir(std::move(dir)) {}
  ~SimProcess() { stop(); }
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  // Starts vodsim --dir DIR plus extraArgs and waits until all six programs answer a
  // null call and the control socket a ping.  False (with the log in the failure
  // message) when it ended or did not come up within 20 seconds.
  bool start(std::vector<std::string> extraArgs = {});
  void stop();  // SIGTERM, then SIGKILL after 10 s; waits for the process
  void kill();  // SIGKILL: a crash
  // Stops (or, with crash, kills) and starts again with the same arguments and data dir.
  bool restart(bool crash = false);
  bool running();
  pid_t pid() const { return _pid; }

  // vodsimctl with this simulator's control socket.  Safe from any thread.
  RunResult ctl(const std::vector<std::string>& args, double timeoutSec = 60) const;
  std::string log() const;  // what vodsim wrote to stdout and stderr
  const std::string& dir() const { return _dir; }

 private:
  std::string _dir;
  std::vector<std::string> _args;
  pid_t _pid = -1;
};

// An XDR result that frees itself.
template <typename T>
struct XdrOut {
  explicit XdrOut(xdrproc_t f) : filter(f) {}
  ~XdrOut() { xdr_free(filter, reinterpret_cast<char*>(&v)); }
  XdrOut(const XdrOut&) = delete;
  XdrOut& operator=(const XdrOut&) = delete;
  T v{};
  xdrproc_t filter;
};

// Fixture: a running simulator per test.  Set simArgs in the constructor of a derived
// fixture to start it with options (e.g. --config).  A race report in the simulator's
// log fails the test at tear-down.
class SimTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A TCP client to one of the simulator's programs at host (D-blade 1 and the node's
  // programs by default) with a per-call time-out; owned by the fixture.  Null (and a
  // test failure) when it cannot be made.
  CLIENT* client(rpcprog_t prog, rpcvers_t vers, unsigned timeoutSec = 10,
                 const std::string& host = "127.0.0.1");
  // Destroys the clients made so far (before a restart of the simulator).
  void dropClients();
  // vodsimctl; expects success unless told otherwise and returns stdout.
  std::string ctl(const std::vector<std::string>& args, bool expectOk = true);

  std::vector<std::string> simArgs;
  std::unique_ptr<SimProcess> sim;
  std::string scratch;  // a private directory; the data dir is scratch/data

 private:
  std::vector<CLIENT*> _clients;
};

}  // namespace simtest

#endif  // TESTS_SIM_SIMTEST_H
