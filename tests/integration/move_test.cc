// Live volume move end to end on a node with the simulated cluster, checked
// by what a user sees afterwards: the volume under its own id on the target
// LP with its contents and data version, the VLDB pointing there, nothing
// left of the passes, and an empty VODB. Then vod killed at named points of
// a move, and what the next vod makes of it.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "cluster_fixture.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

constexpr unsigned kSameLp = 5010;

class MoveTest : public ClusterTest {
  protected:
    VoOut startMove(uint32_t vid, const std::string& srcLp, const std::string& dstLp) {
        VoLidIn in{};
        in.vidSrc = vid;
        lpBytes(srcLp, in.lidSrc);
        lpBytes(dstLp, in.lidSink);
        return call(vomove_1, &in, "vomove");
    }

    VoMovePgrsOut moveProgress(uint32_t vid, const std::string& srcLp) {
        VoIn in{};
        in.vidSrc = vid;
        lpBytes(srcLp, in.lidSrc);
        VoMovePgrsOut out{};
        EXPECT_EQ(RPC_SUCCESS, vomovepgrs_1(&in, &out, vo())) << "vomovepgrs";
        return out;
    }

    VoOut moveControl(clnt_stat (*stub)(VoIn*, VoOut*, CLIENT*), uint32_t vid,
                      const std::string& srcLp, const char* what) {
        VoIn in{};
        in.vidSrc = vid;
        lpBytes(srcLp, in.lidSrc);
        return call(stub, &in, what);
    }

    template <typename In>
    VoOut call(clnt_stat (*stub)(In*, VoOut*, CLIENT*), In* in, const char* what) {
        VoOut out{};
        EXPECT_EQ(RPC_SUCCESS, stub(in, &out, vo())) << what;
        return out;
    }

    // Polls the move until pred holds; false after timeoutSec.
    bool waitForMove(uint32_t vid, const std::string& srcLp,
                     const std::function<bool(const VoMovePgrsOut&)>& pred, double timeoutSec,
                     VoMovePgrsOut* last = nullptr) {
        auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSec);
        while (std::chrono::steady_clock::now() < end) {
            VoMovePgrsOut r = moveProgress(vid, srcLp);
            if (last != nullptr) *last = r;
            if (pred(r)) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    // A read-write volume of real files on lp.
    uint32_t filled(const std::string& name, const std::string& lp, unsigned files = 20,
                    unsigned size = 4096) {
        uint32_t vid = makeVolume(name, lp, files, size);
        EXPECT_NE(0u, vid);
        return vid;
    }
};

// ---- refusals

TEST_F(MoveTest, RefusalsNameTheirCauseAndRecordNothing) {
    const uint32_t vid = filled("mv.refused", "lp1a");
    // A tiny LP on D-blade 2 that the volume does not fit in.
    sim({"lp-create", "tiny", "2", "1"});
    const uint32_t big = filled("mv.big", "lp1a", 8, 256 * 1024);
    struct Case {
        const char* what;
        std::function<void()> before;
        uint32_t vid;
        const char* dst;
        int rc, func;
        unsigned funcrc;
    } cases[] = {
        {"same LP", [] {}, vid, "lp1a", voErrValidate, voErrVodAddStream, kSameLp},
        {"no room on the target", [] {}, big, "tiny", voErrNotEnoughSpaceSinkLP, voErrVodValidate,
         voErrNotEnoughSpaceSinkLP},
        {"a recorded copy of the volume",
         [&] { addVodbRecord(0, "copy", vid, "lp1a", "src"); }, vid, "lp2a", voErrValidate,
         voErrVodValidate, VOD_ERR_BUSY_COPY},
        {"a recorded mirror of the volume",
         [&] { addVodbRecord(0, "mirror", vid, "lp1a", "src"); }, vid, "lp2a", voErrValidate,
         voErrVodValidate, VOD_ERR_BUSY_MIRROR},
        {"a recorded delete of the volume",
         [&] { addVodbRecord(0, "del", vid, "lp1a", "src"); }, vid, "lp2a", voErrValidate,
         voErrVodValidate, VOD_ERR_BUSY_DELETE},
    };
    const std::set<VolumeKey> before = volumeKeys();
    for (const Case& c : cases) {
        c.before();
        VoOut out = startMove(c.vid, "lp1a", c.dst);
        expectTriple(out, c.rc, c.func, c.funcrc, c.what);
        // Only the record the case itself planted is left; no volume was made.
        for (const json& r : vodbRecords())
            sim({"vodb-delete", std::to_string(r["opid"].get<uint64_t>())});
        EXPECT_EQ(before, volumeKeys()) << c.what;
    }
    EXPECT_TRUE(waitVodbEmpty(5));
    expectVldbAgreesWithDblades();
}

// ---- cancel

TEST_F(MoveTest, CancelDuringARegularPassRollsBackAndLeavesTheSourceWritable) {
    const uint32_t vid = filled("mv.cancel", "lp1a", 40, 64 * 1024);
    const std::string sum = checksum(vid, "lp1a");
    speed(128);
    expectTriple(startMove(vid, "lp1a", "lp2a"), 0, 0, 0, "start");
    ASSERT_TRUE(waitForMove(
        vid, "lp1a", [](const VoMovePgrsOut& r) { return r.rc == 0 && r.src.vnodesProcessed > 0; },
        30));
    expectTriple(moveControl(vomovecancel_1, vid, "lp1a", "vomovecancel"), 0, 0, 0, "cancel");
    speed(0);
    ASSERT_TRUE(waitVodbEmpty(60));
    expectSettled({{"lp1a", vid}});
    EXPECT_EQ(sum, checksum(vid, "lp1a"));
    // Writable: the source takes a change.
    sim({"vol-write", std::to_string(vid), "lp1a", "after-cancel", "--text", "x"});
    EXPECT_NE(sum, checksum(vid, "lp1a"));
}

}  // namespace
}  // namespace vodtest
