// main of the integration-test binaries: into the node sandbox first.
#include <gtest/gtest.h>

#include "node.h"

int main(int argc, char** argv) {
    vodtest::Node::enterSandbox(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
