// main of sim_tests: into the node sandbox first (fresh network, mount and pid
// namespaces with their own rpcbind), so the simulators the tests start never touch the
// machine's port mapper and die with the namespace.  Without it the tests fail (as root
// or under CI=true) or skip (a developer without root).

#include <gtest/gtest.h>
#include <signal.h>

#include "simtest.h"

int main(int argc, char** argv) {
  vodtest::Node::enterSandbox(argc, argv);
  signal(SIGPIPE, SIG_IGN);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
