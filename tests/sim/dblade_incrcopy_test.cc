// The simulated D-blade's incremental-copy streams: whole and incremental sends, sinks
// already current, pause and resume under a speed limit, cancel, conclude, the completion
// notice to vod, and streams forgotten by a restarted simulator.

#include <chrono>
#include <mutex>
#include <thread>

#include "dblade_fixture.h"
#include "fake_vod.h"

using namespace dbladetest;

namespace {

constexpr unsigned kSrc = 100, kSink = 200;

class DbladeIncrCopyTest : public DbladeTest {
protected:
    // A source volume on lp1a with `files` generated files of `size` bytes and an empty
    // sink on lp2a, a LP of the other D-blade.
    void makePair(unsigned files, uint64_t size) {
        ASSERT_EQ(create(kLp1a, kSrc, "src"), 0u);
        ASSERT_EQ(create(kLp2a, kSink, "sink"), 0u);
        if (files) fill(kSrc, "lp1a", files, size);
    }

    void expectSameAsSource(unsigned sink, const std::string& lp, const unsigned char* lpId) {
        EXPECT_EQ(checksum(sink, lp), checksum(kSrc, "lp1a"));
        EXPECT_EQ(attrs(lpId, sink).dataVersion, attrs(kLp1a, kSrc).dataVersion);
    }

    // Samples progress twice, `gapSec` apart.
    std::pair<Pgrs, Pgrs> twoSamples(uint64_t opId, double gapSec) {
        Pgrs a = progress(opId);
        std::this_thread::sleep_for(std::chrono::duration<double>(gapSec));
        return {a, progress(opId)};
    }
};

TEST_F(DbladeIncrCopyTest, CopiesAVolumeToAnotherDblade) {
    makePair(20, 10000);
    ctl({"vol-write", "100", "lp1a", "dir/note", "--text", "hello"});
    ASSERT_EQ(mirror(7, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    Pgrs p = waitDone(7);

    EXPECT_EQ(p.code, 0u);
    EXPECT_EQ(p.vnodesTotal, 21u);
    EXPECT_EQ(p.vnodesProcessed, 21u);
    EXPECT_EQ(p.blksRead, 20u * 3 + 1);
    ASSERT_EQ(p.dests.size(), 1u);
    EXPECT_EQ(p.dests[0].isDone, 1u);
    EXPECT_EQ(p.dests[0].completionCode, 0u);
    EXPECT_EQ(p.dests[0].vfsId, kSink);
    EXPECT_EQ(memcmp(p.dests[0].uuid, kLp2a, 16), 0);
    EXPECT_EQ(p.dests[0].blksSent, 20u * 3 + 1);
    expectSameAsSource(kSink, "lp2a", kLp2a);
    EXPECT_EQ(ctl({"vol-files", "200", "lp2a"}), ctl({"vol-files", "100", "lp1a"}));

    EXPECT_EQ(conclude(7), 0u);
    EXPECT_EQ(progress(7).rc, unsigned{VIC_EOPNOTFOUND});
    EXPECT_EQ(conclude(7), unsigned{VIC_EOPNOTFOUND});
}

TEST_F(DbladeIncrCopyTest, AnIncrementalSendCarriesOnlyTheChanges) {
    makePair(30, 8192);
    ASSERT_EQ(mirror(1, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    waitDone(1);
    ASSERT_EQ(conclude(1), 0u);

    // One file replaced (2 blocks), one added (1 block), one removed.
    write(kSrc, "lp1a", "fill/00003", 8000);
    write(kSrc, "lp1a", "new", 100);
    ctl({"vol-rm", "100", "lp1a", "fill/00007"});
    ASSERT_EQ(mirror(2, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    Pgrs p = waitDone(2);
    EXPECT_EQ(p.vnodesTotal, 3u);
    EXPECT_EQ(p.blksRead, 3u);
    ASSERT_EQ(p.dests.size(), 1u);
    EXPECT_EQ(p.dests[0].completionCode, 0u);
    EXPECT_EQ(p.dests[0].blksSent, 3u);
    expectSameAsSource(kSink, "lp2a", kLp2a);
}

TEST_F(DbladeIncrCopyTest, EachSinkGetsWhatItLacks) {
    makePair(4, 4096);
    ASSERT_EQ(create(kLp2b, 300, "behind"), 0u);
    ASSERT_EQ(create(kLp1b, 400, "current"), 0u);
    ASSERT_EQ(mirror(1, kLp1a, kSrc, {{2, 300, kLp2b}, {1, 400, kLp1b}}), 0u);
    waitDone(1);
    ASSERT_EQ(conclude(1), 0u);
    write(kSrc, "lp1a", "late", 4096);
    ASSERT_EQ(mirror(2, kLp1a, kSrc, {{1, 400, kLp1b}}), 0u);
    waitDone(2);
    ASSERT_EQ(conclude(2), 0u);

    // Now 400 is current, 300 lacks one file and the new 200 lacks everything.
    ASSERT_EQ(mirror(3, kLp1a, kSrc, {{2, kSink, kLp2a}, {2, 300, kLp2b}, {1, 400, kLp1b}}), 0u);
    Pgrs p = waitDone(3);
    ASSERT_EQ(p.dests.size(), 3u);
    EXPECT_EQ(p.dests[0].blksSent, 5u);
    EXPECT_EQ(p.dests[1].blksSent, 1u);
    EXPECT_EQ(p.dests[2].completionCode, unsigned{VIC_ESINKUPTODATE});
    EXPECT_EQ(p.dests[2].isDone, 1u);
    EXPECT_EQ(p.blksRead, 5u);  // the source is read once for all sinks
    expectSameAsSource(kSink, "lp2a", kLp2a);
    expectSameAsSource(300, "lp2b", kLp2b);
    expectSameAsSource(400, "lp1b", kLp1b);
}

TEST_F(DbladeIncrCopyTest, ASinkAlreadyCurrentEndsAtOnce) {
    makePair(2, 100);
    ASSERT_EQ(clone(kLp1a, kSrc, 101), 0u);  // a clone is at its source's data version
    ASSERT_EQ(mirror(5, kLp1a, kSrc, {{1, 101, kLp1a}}), 0u);
    Pgrs p = waitDone(5, 5);
    EXPECT_EQ(p.code, 0u);
    EXPECT_EQ(p.blksRead, 0u);
    ASSERT_EQ(p.dests.size(), 1u);
    EXPECT_EQ(p.dests[0].isDone, 1u);
    EXPECT_EQ(p.dests[0].completionCode, unsigned{VIC_ESINKUPTODATE});
}

TEST_F(DbladeIncrCopyTest, PauseStopsTheCountersAndResumeFinishes) {
    makePair(8, 64 * 1024);
    ctl({"stream-speed", "64"});
    ASSERT_EQ(mirror(9, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);

    // Under the limit the counters move while the stream runs.
    ASSERT_TRUE(simtest::pollUntil([&] { return progress(9).blksRead > 0; }, 10));
    auto [a, b] = twoSamples(9, 0.5);
    EXPECT_EQ(b.status, unsigned{IncrCopyRunning});
    EXPECT_GT(b.blksRead, a.blksRead);
    EXPECT_GT(b.dests.at(0).blksSent, a.dests.at(0).blksSent);
    EXPECT_LT(b.blksRead, 8u * 16);

    ASSERT_EQ(pause(9), 0u);
    EXPECT_EQ(progress(9).status, unsigned{IncrCopyPaused});
    // A chunk already on its way (an eighth of a second at this limit) may still land.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto [c, d] = twoSamples(9, 0.6);
    EXPECT_EQ(c.blksRead, d.blksRead);
    EXPECT_EQ(c.dests.at(0).blksSent, d.dests.at(0).blksSent);
    EXPECT_EQ(d.status, unsigned{IncrCopyPaused});

    // The stream's own limit overrides the global one.
    ctl({"stream-speed", "9", "100000"});
    ASSERT_EQ(resume(9), 0u);
    Pgrs e = waitDone(9, 20);
    EXPECT_EQ(e.blksRead, 8u * 16);
    EXPECT_EQ(e.dests.at(0).completionCode, 0u);
    expectSameAsSource(kSink, "lp2a", kLp2a);
}

TEST_F(DbladeIncrCopyTest, CancelEndsOneSinkAndLeavesItHidden) {
    makePair(8, 64 * 1024);
    ASSERT_EQ(create(kLp2b, 300, "other"), 0u);
    ctl({"stream-speed", "128"});
    ASSERT_EQ(mirror(4, kLp1a, kSrc, {{2, kSink, kLp2a}, {2, 300, kLp2b}}), 0u);
    ASSERT_TRUE(simtest::pollUntil([&] { return progress(4).vnodesProcessed >= 1; }, 20));

    ASSERT_EQ(cancel(4, kSink, kLp2a), 0u);
    Pgrs p = progress(4);
    EXPECT_EQ(p.status, unsigned{IncrCopyRunning});
    EXPECT_EQ(p.dests.at(0).isDone, 1u);
    EXPECT_EQ(p.dests.at(0).completionCode, unsigned{VIC_ECANCELLED});
    EXPECT_EQ(p.dests.at(1).isDone, 0u);

    // The half-written sink is hidden: it holds its id but answers 32, until deleted.
    ASSERT_TRUE(simtest::pollUntil([&] { return getattr(kLp2a, kSink) == TARN_ERR_VOLHIDDEN; }, 5));
    EXPECT_EQ(create(kLp2a, kSink), unsigned{TARN_ERR_VOLHIDDEN});
    EXPECT_EQ(clone(kLp2a, kSink, 201), unsigned{TARN_ERR_VOLHIDDEN});
    EXPECT_EQ(remove(kLp2a, kSink), 0u);
    EXPECT_EQ(getattr(kLp2a, kSink), unsigned{TARN_ERR_VOLNOTFOUND});

    // The other sink goes on to the end.
    ctl({"stream-speed", "0"});
    p = waitDone(4);
    EXPECT_EQ(p.code, 0u);
    EXPECT_EQ(p.dests.at(1).completionCode, 0u);
    expectSameAsSource(300, "lp2b", kLp2b);
    EXPECT_EQ(cancel(4, 300, kLp2b), 0u);  // nothing left to cancel
    EXPECT_EQ(progress(4).dests.at(1).completionCode, 0u);
}

TEST_F(DbladeIncrCopyTest, CancellingEverySinkEndsTheStream) {
    makePair(4, 64 * 1024);
    ctl({"stream-speed", "16"});
    ASSERT_EQ(mirror(3, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    ASSERT_EQ(pause(3), 0u);
    ASSERT_EQ(cancel(3, kSink, kLp2a), 0u);
    Pgrs p = waitDone(3, 5);
    EXPECT_EQ(p.code, unsigned{VIC_ECANCELLED});
    EXPECT_EQ(p.dests.at(0).completionCode, unsigned{VIC_ECANCELLED});
    // A sink the stream had not yet written into is left as it was.
    EXPECT_EQ(attrs(kLp2a, kSink).dataVersion, 0u);
}

TEST_F(DbladeIncrCopyTest, ASinkWhoseLpFillsUpFailsAlone) {
    makePair(3, 400 * 1024);   // 300 blocks
    ctl({"lp-create", "tiny", "2", "1", "02DD0000000000000000000000000001"});   // 256 blocks
    const unsigned char tiny[16] = {0x02, 0xDD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
    ASSERT_EQ(create(tiny, 300, "small"), 0u);
    ASSERT_EQ(mirror(8, kLp1a, kSrc, {{2, 300, tiny}, {2, kSink, kLp2a}}), 0u);
    Pgrs p = waitDone(8);
    EXPECT_EQ(p.code, 0u);
    EXPECT_EQ(p.dests.at(0).completionCode, unsigned{VIC_EIO});
    EXPECT_EQ(p.dests.at(1).completionCode, 0u);
    expectSameAsSource(kSink, "lp2a", kLp2a);
    // What did arrive is an incomplete image.
    EXPECT_EQ(getattr(tiny, 300), unsigned{TARN_ERR_VOLHIDDEN});
}

TEST_F(DbladeIncrCopyTest, StreamRefusalsAndBusyVolumes) {
    makePair(4, 64 * 1024);
    ASSERT_EQ(create(kLp1b, 300, "x"), 0u);
    // Parallel arrays that disagree with numDests are malformed.
    {
        u_short did = 2;
        u_int id = kSink;
        lpUuid_t lp;
        memcpy(lp, kLp2a, 16);
        IncrCopyMirrorIn in{};
        in.opId = 1;
        in.srcVfsId = kSrc;
        memcpy(in.srcLpUuid, kLp1a, 16);
        in.numDests = 2;
        in.dstBladeId = {1, &did};
        in.dstVfsId = {1, &id};
        in.dstLpUuid = {1, &lp};
        u_int st = 0;
        ASSERT_EQ(incrcopymirror_1(&in, &st, icp), RPC_SUCCESS);
        EXPECT_EQ(st, unsigned{VIC_EINVAL});
    }
    EXPECT_EQ(mirror(1, kLp1a, 555, {{2, kSink, kLp2a}}), unsigned{VIC_EVOLNOTFOUND});
    EXPECT_EQ(progress(1).rc, unsigned{VIC_EOPNOTFOUND});
    for (unsigned st : {pause(1), resume(1), cancel(1, kSink, kLp2a)})
        EXPECT_EQ(st, unsigned{VIC_EOPNOTFOUND});

    ctl({"stream-speed", "16"});
    // A sink named with the wrong D-blade takes no part; the other one does.
    ASSERT_EQ(mirror(2, kLp1a, kSrc, {{1, kSink, kLp2a}, {1, 300, kLp1b}}), 0u);
    Pgrs p = progress(2);
    EXPECT_EQ(p.dests.at(0).isDone, 1u);
    EXPECT_EQ(p.dests.at(0).completionCode, unsigned{VIC_ELPMISMATCH});
    EXPECT_EQ(p.dests.at(1).isDone, 0u);
    EXPECT_EQ(mirror(2, kLp1a, kSrc, {{2, kSink, kLp2a}}), unsigned{VIC_EOPIDINUSE});
    EXPECT_EQ(conclude(2), unsigned{VIC_EVOLBUSY});
    // While the stream reads the source and writes the sink, neither can be deleted,
    // renumbered or written through the control tool.
    EXPECT_EQ(remove(kLp1a, kSrc), unsigned{TARN_ERR_ENORNUM});
    EXPECT_EQ(renumber(kLp1a, kSrc, 101), unsigned{TARN_ERR_ENORNUM});
    EXPECT_EQ(attrs(kLp1a, kSrc).readRefCount, 1u);
    EXPECT_EQ(remove(kLp1b, 300), unsigned{TARN_ERR_ENORNUM});
    ctl({"vol-write", "300", "lp1b", "x", "--text", "x"}, false);
    // The source itself may still change; the stream sends it as it was.
    std::string before = checksum(kSrc, "lp1a");
    write(kSrc, "lp1a", "fill/00000", 10);
    ctl({"stream-speed", "0"});
    waitDone(2);
    EXPECT_EQ(checksum(300, "lp1b"), before);
    EXPECT_EQ(remove(kLp1a, kSrc), 0u);
}

// A stream belongs to its source's D-blade: another D-blade neither starts one from an
// LP it does not serve nor knows one started elsewhere.
TEST_F(DbladeIncrCopyTest, AStreamIsKnownOnlyToItsSourcesDblade) {
    makePair(8, 64 * 1024);
    ctl({"stream-speed", "16"});
    ASSERT_EQ(mirror(3, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    CLIENT* one = icp;
    icp = client(DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS, 10, simtest::dbladeAddress(2));
    ASSERT_NE(icp, nullptr);
    EXPECT_EQ(mirror(4, kLp1a, kSrc, {{2, 300, kLp2b}}), unsigned{VIC_ELPNOTFOUND});
    EXPECT_EQ(progress(3).rc, unsigned{VIC_EOPNOTFOUND});
    for (unsigned st : {pause(3), resume(3), conclude(3), cancel(3, kSink, kLp2a)})
        EXPECT_EQ(st, unsigned{VIC_EOPNOTFOUND});
    icp = one;
    EXPECT_EQ(progress(3).status, unsigned{IncrCopyRunning}) << "the refusals touched the stream";
    ctl({"stream-speed", "0"});
    waitDone(3);
    expectSameAsSource(kSink, "lp2a", kLp2a);
    EXPECT_EQ(ctl({"calls", "incrcopyprogress", "--dblade", "2"}), "1\n");
}

TEST_F(DbladeIncrCopyTest, AFaultAimedAtOneStreamLeavesTheOthersAlone) {
    makePair(8, 64 * 1024);
    ASSERT_EQ(create(kLp2b, 300, "sink2"), 0u);
    ctl({"stream-speed", "16"});
    ASSERT_EQ(mirror(5, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    ASSERT_EQ(mirror(6, kLp1a, kSrc, {{2, 300, kLp2b}}), 0u);
    ctl({"fault", "status", "incrcopyprogress", "5", "always", "--opid", "5"});
    ctl({"fault", "status", "incrcopypause", "7", "--opid", "6"});
    EXPECT_EQ(ctl({"fault", "list"}),
              "incrcopypause status 7 1x opid 6\nincrcopyprogress status 5 always opid 5\n");
    EXPECT_EQ(progress(5).rc, 5u);
    EXPECT_EQ(progress(6).rc, 0u);
    EXPECT_EQ(pause(5), 0u);
    EXPECT_EQ(pause(6), 7u);
    for (auto words :
         {std::vector<std::string>{"fault", "status", "volcreate", "5", "--opid", "5"},
          {"fault", "refuse", "dblade_incrcopy", "--opid", "5"},
          {"fault", "hold", "incrcopyprogress", "--opid", "0"},
          {"fault", "hold", "incrcopyprogress", "--opid"}})
        EXPECT_NE(sim->ctl(words).status, 0) << words[2] << " " << words.back();
    ctl({"fault", "clear"});
    EXPECT_EQ(progress(5).rc, 0u);
}

TEST_F(DbladeIncrCopyTest, ARestartedSimulatorHasForgottenItsStreams) {
    makePair(8, 64 * 1024);
    ctl({"stream-speed", "32"});
    ASSERT_EQ(mirror(6, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    ASSERT_TRUE(simtest::pollUntil([&] { return progress(6).vnodesProcessed >= 1; }, 20));

    ASSERT_TRUE(sim->restart(/*crash=*/true));
    reconnect();
    EXPECT_EQ(progress(6).rc, unsigned{VIC_EOPNOTFOUND});
    EXPECT_EQ(conclude(6), unsigned{VIC_EOPNOTFOUND});
    // The sink it was writing is an inconsistent image: hidden until a stream completes it.
    EXPECT_EQ(getattr(kLp2a, kSink), unsigned{TARN_ERR_VOLHIDDEN});
    ASSERT_EQ(mirror(7, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    waitDone(7);
    expectSameAsSource(kSink, "lp2a", kLp2a);
}

// ---- the completion notice to vod ---------------------------------------------------------

TEST_F(DbladeIncrCopyTest, AnEndedStreamTellsVod) {
    makePair(3, 1000);
    // Without a vod the notice is lost and the stream ends all the same.
    ASSERT_EQ(mirror(11, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    waitDone(11);
    ASSERT_EQ(conclude(11), 0u);

    FakeVod vod;
    ASSERT_TRUE(vod.start());
    write(kSrc, "lp1a", "more", 10);
    ASSERT_EQ(mirror(12, kLp1a, kSrc, {{2, kSink, kLp2a}}), 0u);
    EXPECT_TRUE(simtest::pollUntil([] { return FakeVod::received(12); }, 10));
    EXPECT_EQ(progress(12).status, unsigned{IncrCopyDone});
}

}  // namespace
