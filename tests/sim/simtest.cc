// The simulator fixture: process control, vodsimctl runner, RPC clients.

#include "simtest.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "coord.h"
#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "dldb_server.h"
#include "util/xdrproc.h"
#include "vldb_server.h"

namespace simtest {

const unsigned char kLp1a[16] = {0x01, 0x0A};
const unsigned char kLp1b[16] = {0x01, 0x0B};
const unsigned char kLp2a[16] = {0x02, 0x0A};
const unsigned char kLp2b[16] = {0x02, 0x0B};

std::string dbladeAddress(unsigned did) { return "127.0.0." + std::to_string(did); }

namespace {

std::vector<char*> argvOf(const std::string& path, const std::vector<std::string>& args) {
  std::vector<char*> v{const_cast<char*>(path.c_str())};
  for (const std::string& a : args) v.push_back(const_cast<char*>(a.c_str()));
  v.push_back(nullptr);
  return v;
}

// Waits up to timeoutSec for pid; its status as RunResult::status, or -1.
int waitFor(pid_t pid, double timeoutSec) {
  int result = -1;
  pollUntil(
      [&] {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid) result = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        return r == pid || (r < 0 && errno != EINTR);
      },
      timeoutSec, 0.01);
  return result;
}

bool nullCall(rpcprog_t prog, rpcvers_t vers, const std::string& host) {
  CLIENT* c = clnt_create(host.c_str(), prog, vers, "tcp");
  if (!c) return false;
  timeval tv{2, 0};
  clnt_stat st = clnt_call(c, NULLPROC, xdrProc(xdr_void), nullptr,
                           xdrProc(xdr_void), nullptr, tv);
  clnt_destroy(c);
  return st == RPC_SUCCESS;
}

}  // namespace

bool SimProcess::start(std::vector<std::string> extraArgs) {
  _args = {"--dir", _dir + "/data", "--control", _dir + "/control.sock"};
  _args.insert(_args.end(), extraArgs.begin(), extraArgs.end());
  std::string logPath = _dir + "/vodsim.log";
  std::vector<char*> argv = argvOf(VODSIM_BIN, _args);
  _pid = fork();
  if (_pid == 0) {
    int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(log, 1);
    dup2(log, 2);
    execv(VODSIM_BIN, argv.data());
    _exit(127);
  }
  if (_pid < 0) return false;
  const rpcprog_t nodeProgs[][2] = {{VLDB_PROG, VLDB_VERS}, {DLDB_PROG, DLDB_VERS}, {COORD_PROG, COORD_VERS}};
  const rpcprog_t dbladeProgs[][2] = {{DBLADE_LPM_PROG, DBLADE_LPM_VERS},
                                      {DBLADE_VOL_PROG, DBLADE_VOL_VERS},
                                      {DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS}};
  bool up = pollUntil(
      [&] {
        if (!running()) return true;  // gave up; reported below
        if (ctl({"ping"}, 5).status != 0) return false;
        for (auto& p : nodeProgs)
          if (!nullCall(p[0], p[1], "127.0.0.1")) return false;
        // The D-blade programs at the first D-blade's address ("DID HOST ADDRESS" lines).
        std::istringstream first(ctl({"dblades"}, 5).out);
        std::string did, host, addr;
        if (!(first >> did >> host >> addr)) return false;
        for (auto& p : dbladeProgs)
          if (!nullCall(p[0], p[1], addr)) return false;
        return true;
      },
      20, 0.05);
  if (up && running()) return true;
  ADD_FAILURE() << "vodsim did not come up; its log:\n" << log();
  kill();
  return false;
}

bool SimProcess::running() {
  if (_pid <= 0) return false;
  int st;
  pid_t r = waitpid(_pid, &st, WNOHANG);
  if (r == _pid) _pid = -1;
  return _pid > 0;
}

void SimProcess::stop() {
  if (!running()) return;
  ::kill(_pid, SIGTERM);
  if (waitFor(_pid, 10) < 0) {
    ::kill(_pid, SIGKILL);
    waitFor(_pid, 10);
  }
  _pid = -1;
}

void SimProcess::kill() {
  if (!running()) return;
  ::kill(_pid, SIGKILL);
  waitFor(_pid, 10);
  _pid = -1;
}

bool SimProcess::restart(bool crash) {
  std::vector<std::string> extra(_args.begin() + 4, _args.end());
  if (crash) kill();
  else stop();
  return start(extra);
}

RunResult SimProcess::ctl(const std::vector<std::string>& args, double timeoutSec) const {
  std::vector<std::string> all{"--control", _dir + "/control.sock"};
  all.insert(all.end(), args.begin(), args.end());
  return runProgram(VODSIMCTL_BIN, all, timeoutSec);
}

std::string SimProcess::log() const {
  std::ifstream in(_dir + "/vodsim.log");
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void SimTest::SetUp() {
  VODTEST_REQUIRE_SANDBOX();
  char tmpl[] = "/tmp/vodsim-test-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr) << std::strerror(errno);
  scratch = tmpl;
  sim = std::make_unique<SimProcess>(scratch);
  ASSERT_TRUE(sim->start(simArgs));
}

void SimTest::TearDown() {
  dropClients();
  if (sim) {
    sim->stop();
    // The log holds every run of this test's simulator, restarts included.
    vodtest::expectNoRaceReport("vodsim", sim->log());
  }
  if (!scratch.empty()) {
    if (HasFailure()) {
      std::printf("simulator scratch kept in %s; log tail:\n%s\n", scratch.c_str(),
                  sim ? sim->log().substr(sim->log().size() > 4000 ? sim->log().size() - 4000 : 0).c_str() : "");
    } else {
      runProgram("/bin/rm", {"-rf", scratch}, 60);
    }
  }
}

CLIENT* SimTest::client(rpcprog_t prog, rpcvers_t vers, unsigned timeoutSec, const std::string& host) {
  CLIENT* c = clnt_create(host.c_str(), prog, vers, "tcp");
  if (!c) {
    ADD_FAILURE() << "no client for program " << std::hex << prog << " at " << host << ": "
                  << clnt_spcreateerror("clnt_create");
    return nullptr;
  }
  timeval tv{static_cast<time_t>(timeoutSec), 0};
  clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
  _clients.push_back(c);
  return c;
}

void SimTest::dropClients() {
  for (CLIENT* c : _clients) clnt_destroy(c);
  _clients.clear();
}

std::string SimTest::ctl(const std::vector<std::string>& args, bool expectOk) {
  RunResult r = sim->ctl(args);
  std::string cmd;
  for (const std::string& a : args) cmd += a + " ";
  if (expectOk) EXPECT_EQ(r.status, 0) << "vodsimctl " << cmd << "failed: " << r.err;
  else EXPECT_NE(r.status, 0) << "vodsimctl " << cmd << "succeeded: " << r.out;
  return r.out;
}

}  // namespace simtest
