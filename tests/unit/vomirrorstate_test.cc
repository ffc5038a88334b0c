#include "vomirrorstate.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

const unsigned char kLidA[16] = {0xA1};
const unsigned char kLidB[16] = {0xB2};
const unsigned char kLidC[16] = {0xC3};

class TestMirror : public VoMirrorState {
  public:
    using VoMirrorState::moveToBack;
    using VoMirrorState::validate;
    explicit TestMirror(bool rw) { setSrcVfsType(rw ? RW_VFS : RO_VFS); }
    void setSrcDver(unsigned long long d) { _srcRec.setDver(d); }
    // The destinations' LPs (first byte) and codes, in list order.
    std::vector<std::pair<int, unsigned>> streams() const {
        std::vector<std::pair<int, unsigned>> v;
        for (const auto& r : _opSinkRecs) v.push_back({r->lid()[0], r->getErrCode()});
        return v;
    }
};

TEST(VoMirrorStateRequest, StreamsShareOneSourceAndDistinctLps) {
    TestMirror op(true);
    EXPECT_TRUE(op.addStream(5, kLidA, kLidB, 0));
    EXPECT_EQ(0x40000005u, op.mirrorId());
    struct {
        const char* what;
        unsigned vid;
        const unsigned char* src;
        const unsigned char* dst;
        bool ok;
    } rows[] = {
        {"another destination", 5, kLidA, kLidC, true},
        {"the same destination again", 5, kLidA, kLidB, false},
        {"another source id", 6, kLidA, kLidA, false},
        {"another source LP", 5, kLidC, kLidA, false},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.ok, op.addStream(r.vid, r.src, r.dst, 0)) << r.what;
        if (r.ok) continue;
        voErrFunc func;
        unsigned funcrc;
        op.getErr(&func, &funcrc);
        EXPECT_EQ(voErrVodAddStream, func) << r.what;
        EXPECT_EQ(5001u, funcrc) << r.what;
    }
}

TEST(VoMirrorStateValidate, UpToDateDestinationsStepBackAndAllUpToDateIsRefused) {
    TestMirror op(true);
    op.setSrcDver(70);
    ASSERT_TRUE(op.addStream(5, kLidA, kLidA, 70));  // up to date
    ASSERT_TRUE(op.addStream(5, kLidA, kLidB, 40));
    ASSERT_TRUE(op.addStream(5, kLidA, kLidC, 70));  // up to date
    EXPECT_TRUE(op.validate(nullptr, nullptr));
    // The eligible stream first, the skipped ones behind it in their order.
    EXPECT_EQ((std::vector<std::pair<int, unsigned>>{{0xB2, 0}, {0xA1, 5007}, {0xC3, 5007}}),
              op.streams());

    TestMirror all(true);
    all.setSrcDver(70);
    ASSERT_TRUE(all.addStream(5, kLidA, kLidB, 70));
    EXPECT_FALSE(all.validate(nullptr, nullptr));
    voErrFunc func;
    unsigned funcrc;
    all.getErr(&func, &funcrc);
    EXPECT_EQ(voErrVodValidate, func);
    EXPECT_EQ(5007u, funcrc);
}

}  // namespace
