// main of sim_tests: re-executes the binary as pid 1 of fresh network, mount and pid
// namespaces, with loopback up, private /run and /var/log and an rpcbind of its own, so
// the simulators the tests start never touch the machine's port mapper.  Everything the
// tests start dies with the namespace.  Without the namespaces (not root, unshare not
// permitted) the tests skip and say why.

#include <gtest/gtest.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simtest.h"

namespace simtest {
namespace {

const char* kMarker = "VODSIM_TEST_SANDBOX";
bool gSandboxed = false;
std::string gWhyNot;

int runWait(const std::vector<std::string>& args) {
  RunResult r = runProgram(args[0], std::vector<std::string>(args.begin() + 1, args.end()), 30);
  if (r.status != 0) gWhyNot = args[0] + " failed: " + r.err;
  return r.status;
}

bool rpcbindAnswers() {
  // The port mapper answers for itself.
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return pmap_getport(&addr, PMAPPROG, PMAPVERS, IPPROTO_TCP) != 0;
}

// Inside the namespaces: the private node's plumbing.
bool setUpInside() {
  if (runWait({"/usr/sbin/ip", "link", "set", "lo", "up"}) != 0) return false;
  for (const char* dir : {"/run", "/var/log"}) {
    if (mount("tmpfs", dir, "tmpfs", 0, "mode=755") != 0) {
      gWhyNot = std::string("mount tmpfs on ") + dir + ": " + std::strerror(errno);
      return false;
    }
  }
  mkdir("/run/rpcbind", 0755);
  pid_t pid = fork();
  if (pid == 0) {
    execl("/usr/sbin/rpcbind", "rpcbind", "-f", "-w", static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid < 0 || !pollUntil(rpcbindAnswers, 20, 0.05)) {
    gWhyNot = "rpcbind did not start";
    return false;
  }
  return true;
}

bool listingOnly(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--gtest_list_tests", 18) == 0) return true;
  return false;
}

}  // namespace

bool sandboxed() { return gSandboxed; }
const std::string& whyNotSandboxed() { return gWhyNot; }

// Outside: replaces the process with unshare running this binary again, or returns
// (unsandboxed) when the namespaces cannot be had.  Inside: sets the node up.
void enterSandbox(int argc, char** argv) {
  if (std::getenv(kMarker)) {
    gSandboxed = setUpInside();
    if (!gSandboxed) std::fprintf(stderr, "sim_tests: sandbox set-up failed: %s\n", gWhyNot.c_str());
    return;
  }
  if (listingOnly(argc, argv)) return;
  if (geteuid() != 0) {
    gWhyNot = "not root";
    return;
  }
  if (runWait({"/usr/bin/unshare", "--net", "--mount", "--pid", "--fork", "--mount-proc", "/bin/true"}) != 0) return;
  setenv(kMarker, "1", 1);
  std::vector<char*> args{const_cast<char*>("/usr/bin/unshare"), const_cast<char*>("--net"),
                          const_cast<char*>("--mount"),          const_cast<char*>("--pid"),
                          const_cast<char*>("--fork"),           const_cast<char*>("--mount-proc"),
                          const_cast<char*>("/proc/self/exe")};
  for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);
  // /proc/self/exe would name unshare itself after the exec; pass the real path.
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) {
    gWhyNot = "cannot find this binary";
    return;
  }
  self[n] = 0;
  args[6] = self;
  execv(args[0], args.data());
  gWhyNot = std::string("cannot run unshare: ") + std::strerror(errno);
  unsetenv(kMarker);
}

}  // namespace simtest

int main(int argc, char** argv) {
  simtest::enterSandbox(argc, argv);
  signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
