// A whole node for integration tests: vod, its tools and (later) the
// simulated cluster, run inside private network, mount and pid namespaces
// with their own rpcbind, so tests never touch the machine's port mapper,
// can run side by side, and leave no process behind.
//
// The test binary's main calls Node::enterSandbox() first; it re-executes the
// binary as pid 1 of fresh namespaces (loopback up and carrying 127.0.0.1 to
// 127.0.0.8, a private /etc/hosts that names them dblade1 to dblade8, private
// /run and /var/log, rpcbind running). D-blade n of the simulated cluster
// answers at 127.0.0.n. When the namespaces end, so does every process
// in them. Tests use NodeTest as their fixture: when the sandbox could not be
// had it fails, with the reason, under CI=true or as root (where a sandbox is
// expected, so a run must not go green having run nothing); a developer
// without root and without CI=true gets a skip instead.
//
// Nothing here is thread-safe: one test thread drives a Node.
#ifndef TESTS_INTEGRATION_NODE_H
#define TESTS_INTEGRATION_NODE_H

#include <gtest/gtest.h>
#include <rpc/rpc.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vodtest {

// Calls cond every stepSec until it returns true or timeoutSec have passed.
// Returns the last value of cond.
bool pollUntil(const std::function<bool()>& cond, double timeoutSec, double stepSec = 0.02);

// A file descriptor, closed when the owner goes.
class UniqueFd {
 public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& o) noexcept : _fd(o.release()) {}
    UniqueFd& operator=(UniqueFd&& o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    int get() const { return _fd; }
    explicit operator bool() const { return _fd >= 0; }
    int release() {
        int fd = _fd;
        _fd = -1;
        return fd;
    }
    void reset(int fd = -1);

 private:
    int _fd = -1;
};

// What a finished program left: exit status (128 + signal number when a
// signal ended it, -1 when it was killed for running past its time-out), and
// everything it wrote.
struct RunResult {
    int status = -1;
    std::string out, err;
};

// Adds a test failure, with the report, when output (everything a child
// wrote) holds a ThreadSanitizer report. A race in vod, the simulator or a
// tool must fail the test that ran it, not just sit in a log: the racing
// process goes on running, and often its exit status is never looked at
// (a vod killed on purpose, a simulator stopped at tear-down).
void expectNoRaceReport(const std::string& who, const std::string& output);

// Runs a program to completion with standard input from /dev/null and its
// two output streams captured; kills it after timeoutSec. This is the runner
// for the node's command-line tools (voctl now, the simulator's control tool
// later). A race report on its error stream fails the test
// (expectNoRaceReport).
RunResult runProgram(const std::string& path, const std::vector<std::string>& args,
                     double timeoutSec = 60, const std::vector<std::string>& extraEnv = {});

// Paths of the node's binaries, as built.
const char* vodBinary();
const char* voctlBinary();
const char* vodsimBinary();
const char* vodsimctlBinary();

// A long-running child whose standard output and error go to a
// pseudo-terminal, so its stdio is line-buffered as on a console and every
// trace line can be seen as soon as it is written. A reader thread keeps the
// output in memory and appends it to a log file.
class ConsoleChild {
 public:
    ConsoleChild() = default;
    ~ConsoleChild();  // kills the child with SIGKILL if it still runs, reaps it
    ConsoleChild(const ConsoleChild&) = delete;
    ConsoleChild& operator=(const ConsoleChild&) = delete;

    // Starts path with args (argv[0] is path), in directory cwd, with the
    // environment plus extraEnv ("NAME=value"). False, with *error set, when
    // the child could not be started.
    bool start(const std::string& path, const std::vector<std::string>& args, const std::string& cwd,
               const std::string& logPath, const std::vector<std::string>& extraEnv,
               std::string* error);

    pid_t pid() const { return _pid; }
    bool started() const { return _pid > 0; }
    bool running();

    // Waits up to timeoutSec for the child to end. Returns its exit status,
    // 128 + signal number when a signal ended it, or -1 on time-out. Once it
    // returned a status, output() holds everything the child wrote.
    int wait(double timeoutSec);

    // Sends sig; for SIGKILL also waits for the child to end.
    void kill(int sig);

    std::string output() const;
    // True as soon as needle appears in the output; false after timeoutSec.
    bool waitForOutput(const std::string& needle, double timeoutSec) const;

 private:
    void readLoop();
    void stopReader();

    pid_t _pid = -1;
    bool _reaped = false;
    int _status = -1;
    int _master = -1;
    std::FILE* _log = nullptr;
    std::thread _reader;
    bool _stop = false;  // under _mu
    bool _eof = false;   // under _mu
    mutable std::mutex _mu;
    mutable std::condition_variable _cv;
    std::string _out;  // under _mu
};

class Node {
 public:
    // Call first in main, before InitGoogleTest. Outside the sandbox:
    // re-executes this binary inside unshare and never returns, or returns
    // unsandboxed when that cannot be done (see sandboxed()). Inside: brings
    // up loopback with the D-blade addresses, mounts private /run, /var/log
    // and /etc/hosts (with the D-blade names) and starts rpcbind; exits
    // with status 1 if that fails. Listing the tests needs no sandbox.
    static void enterSandbox(int argc, char** argv);
    static bool sandboxed();
    // Why sandboxed() is false, for the skip or failure message.
    static const std::string& whyNotSandboxed();
    // True when a missing sandbox must fail a test rather than skip it: the
    // environment says CI=true, or this process runs as root.
    static bool sandboxRequired();

    Node();
    ~Node();  // stop(), then removes the scratch folder unless the test failed
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Scratch folder of this node, in the shared /tmp: vod's output file,
    // core files, anything a test wants to keep.
    const std::string& dir() const { return _dir; }

    enum class Wait {
        Registered,  // until VOPROG is registered with rpcbind
        No           // for a vod that is expected to refuse to start
    };
    // Starts vod with args, its output captured (vodOutput()). With
    // Wait::Registered returns true once vod is registered and accepting
    // calls, false when it ended or did not register within 20 seconds.
    bool startVod(std::vector<std::string> args = {"-d"}, Wait wait = Wait::Registered);
    // vod's exit status (as ConsoleChild::wait), -1 when still running after
    // timeoutSec.
    int waitVodExit(int timeoutSec);
    void killVod(int sig = SIGKILL);
    // Kills vod if it runs and starts it again with the same arguments.
    bool restartVod();
    bool vodRunning();
    pid_t vodPid() const { return _vod ? _vod->pid() : -1; }
    // Everything the current vod has written so far.
    std::string vodOutput() const;
    bool waitForTrace(const std::string& needle, int timeoutSec);

    // TCP port that rpcbind gives for VOPROG, 0 when it is not registered.
    unsigned short vodPort() const;

    // A TCP client to VOPROG on 127.0.0.1 with a per-call time-out, owned by
    // the Node (destroyed by stop()); null, with the reason printed, on
    // failure.
    CLIENT* client(unsigned timeoutSec = 10);

    // A plain TCP connection to vod's RPC port, for sending raw bytes;
    // invalid on failure.
    UniqueFd connectRaw() const;

    using Result = RunResult;
    // Runs the voctl binary with args and waits for it.
    Result voctl(std::vector<std::string> args, double timeoutSec = 60);

    // The simulated cluster beside vod: vodsim serves the VLDB and VODB, the
    // DLDB, the coordinator and the D-blades' programs, with its data in
    // simDir()/data and its control socket at simDir()/control.sock.
    // Returns true once vodsimctl ping and a null call to each of the six
    // programs answer; false when it ended or did not come up in 20 seconds.
    bool startSim(std::vector<std::string> extraArgs = {});
    void stopSim();  // SIGTERM, SIGKILL after 10 seconds
    void killSim();  // SIGKILL: a crash
    // Stops (or kills, with crash) and starts again on the same data.
    bool restartSim(bool crash = false);
    bool simRunning();
    std::string simOutput() const;
    std::string simDir() const { return _dir + "/sim"; }
    // Runs vodsimctl against this node's simulator.
    Result simctl(std::vector<std::string> args, double timeoutSec = 60);

    // Destroys the clients and kills every process this node started. Each
    // vod and vodsim this node ran is checked for race reports when it is
    // replaced (start, restart) and here (expectNoRaceReport).
    void stop();

 private:
    std::vector<std::string> vodEnv() const;
    // Kills the child if it still runs, waits for the last of its output,
    // checks that for race reports and lets the child go.
    static void retire(std::unique_ptr<ConsoleChild>& child, const char* who);

    std::string _dir;
    std::unique_ptr<ConsoleChild> _vod;
    std::vector<std::string> _vodArgs;
    std::unique_ptr<ConsoleChild> _sim;
    std::vector<std::string> _simArgs;
    std::vector<CLIENT*> _clients;
};

// Fails (or, for a developer without root, skips) a test that has no node
// sandbox, with the reason. For SetUp() of every fixture that needs one.
#define VODTEST_REQUIRE_SANDBOX()                                                      \
    do {                                                                               \
        if (!::vodtest::Node::sandboxed()) {                                           \
            if (::vodtest::Node::sandboxRequired())                                    \
                GTEST_FAIL() << "no node sandbox: " << ::vodtest::Node::whyNotSandboxed(); \
            GTEST_SKIP() << "no node sandbox: " << ::vodtest::Node::whyNotSandboxed();  \
        }                                                                              \
    } while (0)

// Fixture for tests that need a node: VODTEST_REQUIRE_SANDBOX, and shows the
// tail of vod's output when a test failed.
class NodeTest : public ::testing::Test {
 protected:
    void SetUp() override;
    void TearDown() override;

    Node node;
};

// A node running vod alone, in the foreground (-d).
class VodNodeTest : public NodeTest {
 protected:
    void SetUp() override;
};

}  // namespace vodtest

#endif  // TESTS_INTEGRATION_NODE_H
