// The service loop while a D-blade sits on a stream call that vod made for its
// own status check of a copy: null calls, a new copy and another copy's
// progress polls are all answered before the held call is let go.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "cluster_fixture.h"

namespace vodtest {
namespace {

// Far below the D-blade's hold, which lasts until the test lets it go, and
// far above anything a free loop takes: a generous bound, not a figure.
constexpr unsigned kAnswerSec = 2;

struct HeldCallCase {
    const char* name;
    const char* proc;  // the D-blade call the status check makes, and the D-blade holds
    bool rebuilt;      // vod is killed and restarted first: the copy is rebuilt from the VODB
};

class LoopTest : public ClusterTest, public ::testing::WithParamInterface<HeldCallCase> {
  protected:
    void setCallTimeout(unsigned sec) {
        timeval tv = {static_cast<time_t>(sec), 0};
        ASSERT_TRUE(clnt_control(vo(), CLSET_TIMEOUT, reinterpret_cast<char*>(&tv)));
    }
};

// A live copy is checked 30 seconds after its start, with a progress poll; a
// rebuilt one a second after the restart, with a conclusion (the rebuilt copy
// does not know its stream runs).
TEST_P(LoopTest, AnswersEveryoneElseWhileADbladeHoldsAStatusCheck) {
    const HeldCallCase& c = GetParam();
    // 6 MiB at 128 KiB/s: both streams outlive the test.
    uint32_t heldSrc = makeVolume("held", "lp1a", 24, 262144);
    uint32_t otherSrc = makeVolume("other", "lp1a", 24, 262144);
    ASSERT_NE(heldSrc, 0u);
    ASSERT_NE(otherSrc, 0u);
    CopyKey held;
    startSlowCopy(heldSrc, "lp1a", "lp2a", "held.copy", &held);
    const unsigned long long opid = progress(held).voOpid;
    ASSERT_NE(opid, 0u);

    // From here on nothing but vod's own check asks the D-blade about this
    // stream: the test polls it no more, and polls of a rebuilt copy are
    // answered from memory.
    fault({"hold", c.proc, "--opid", std::to_string(opid)});
    if (c.rebuilt) {
        restartVod();
        VoCopyPgrsOut r{};
        ASSERT_TRUE(waitForReport(
            held, [](const VoCopyPgrsOut& o) { return o.rc != voErrNoSuchOp; }, 30, &r));
    }
    ASSERT_TRUE(waitHeld(c.proc, 40)) << "vod never checked the copy";

    setCallTimeout(kAnswerSec);
    for (int i = 0; i < 10; i++) {
        char none;
        EXPECT_EQ(vonull_1(nullptr, &none, vo()), RPC_SUCCESS) << "null call " << i;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    VoVidOut started = startCopy(otherSrc, "lp1a", "lp2a", "other.copy");
    EXPECT_EQ(started.rc, voErrRcSuccess);
    CopyKey other{otherSrc, "lp1a", started.vid, "lp2a"};
    VoCopyPgrsOut r{};
    EXPECT_TRUE(waitForReport(other, isStreamingWithProgress, 20, &r)) << "rc=" << r.rc;
    setCallTimeout(25);

    // All of that was answered while the D-blade still held vod's call.
    EXPECT_TRUE(release(c.proc));
}

INSTANTIATE_TEST_SUITE_P(
    HeldStreamCall, LoopTest,
    ::testing::Values(HeldCallCase{"ProgressOfALiveCopy", "incrcopyprogress", false},
                      HeldCallCase{"ConclusionOfARebuiltCopy", "incrcopyconclude", true}),
    [](const ::testing::TestParamInfo<HeldCallCase>& i) { return std::string(i.param.name); });

}  // namespace
}  // namespace vodtest
