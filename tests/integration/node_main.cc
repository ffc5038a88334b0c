// main of the integration-test binaries: into the node sandbox first.
#include <gtest/gtest.h>
#include <signal.h>

#include "node.h"

int main(int argc, char** argv) {
    vodtest::Node::enterSandbox(argc, argv);
    // A peer that hangs up must fail a write, not end the test binary.
    signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
