#include "voctl/mirror_report.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using voctl::DestState;
using voctl::StreamReport;

constexpr unsigned kCopyFailed = 20005;  // any completion code of a failed stream

// A mirror's report: the operation's rc and stream status, then one entry.
StreamReport reportOf(voErrRc rc, VoStatusCode status, bool counters) {
    StreamReport r;
    r.multiSink = true;
    r.rc = rc;
    r.src.status = status;
    r.src.vfsId = counters ? 1001 : 0;
    r.src.vnodesTotal = 100;
    r.src.vnodesProcessed = 40;
    return r;
}

VoSinkPgrs entry(uint8_t lpByte, bool isDone, unsigned code, uint64_t megs = 0) {
    VoSinkPgrs s{};
    s.isDone = isDone ? 1 : 0;
    s.completionCode = code;
    s.vfsId = 2000 + lpByte;
    s.uuid[0] = lpByte;
    s.megsProcessed = megs;
    return s;
}

struct DestCase {
    const char* what;
    voErrRc rc;
    VoStatusCode status;
    bool counters;
    bool isDone;
    unsigned code;
    DestState expected;
};

// A destination's state depends on its own entry and, at the end, on whether
// the operation as a whole went through: vod commits nothing of a mirror that
// failed.
TEST(MirrorDestState, FromTheEntryAndTheOperation) {
    const DestCase cases[] = {
        {"waiting for a worker", VoJobInit, VoRunning, false, false, 0, DestState::Waiting},
        {"source and sinks being made", voErrRollBackOp, VoRunning, false, false, 0,
         DestState::Waiting},
        {"streaming", voErrRcSuccess, VoRunning, true, false, 0, DestState::Streaming},
        {"paused", voErrRcSuccess, VoPaused, true, false, 0, DestState::Paused},
        {"a poll that failed does not stop it", voErrRpcFailure, VoRunning, true, false, 0,
         DestState::Streaming},
        {"streamed while others run", voErrRcSuccess, VoRunning, true, true, 0, DestState::Done},
        {"the D-blade found it current", voErrRcSuccess, VoRunning, true, true, 20002,
         DestState::UpToDate},
        {"skipped: already current", voErrRcSuccess, VoRunning, true, false, 5007,
         DestState::UpToDate},
        {"skipped, and the operation failed", VoErrDblade, VoDone, true, false, 5007,
         DestState::UpToDate},
        {"left out: LP in use", voErrRcSuccess, VoRunning, true, false, 5009, DestState::Offending},
        {"local mirror, before the end", voErrRcSuccess, VoRunning, true, false, 5005,
         DestState::Local},
        {"local mirror kept at a clean end", voErrRcSuccess, VoDone, false, false, 5005,
         DestState::Done},
        {"local mirror at a failed end", VoErrDblade, VoDone, true, false, 5005, DestState::Failed},
        {"local mirror given up", voErrRcSuccess, VoDone, true, false, 5032, DestState::Failed},
        {"its stream failed while others run", voErrRcSuccess, VoRunning, true, true, kCopyFailed,
         DestState::Failed},
        {"final, streamed, committed", voErrRcSuccess, VoDone, true, true, 0, DestState::Done},
        {"final, current sink committed", voErrRcSuccess, VoDone, true, true, 20002,
         DestState::UpToDate},
        {"final, streamed, but the operation failed", VoErrDblade, VoDone, true, true, 0,
         DestState::Failed},
        {"final, never finished", voErrRcSuccess, VoDone, true, false, 0, DestState::Failed},
    };
    for (const DestCase& c : cases) {
        StreamReport r = reportOf(c.rc, c.status, c.counters);
        if (c.rc == voErrRpcFailure) r.func = voErrDbladeIncrCopyProgressRpc;
        EXPECT_EQ(voctl::classifyDest(r, entry(1, c.isDone, c.code)), c.expected)
            << c.what << ": got "
            << voctl::destStateName(voctl::classifyDest(r, entry(1, c.isDone, c.code)));
    }
}

std::string label(const voctl::LpId& lp) { return "lp" + std::to_string(lp[0]); }
std::string decode(unsigned code) { return "text of " + std::to_string(code); }

struct WhyCase {
    const char* what;
    voErrRc rc;
    VoStatusCode status;
    bool isDone;
    unsigned code;
    const char* why;
};

TEST(MirrorDestOutcome, SaysWhyADestinationDidNotSimplyComplete) {
    const WhyCase cases[] = {
        {"completed", voErrRcSuccess, VoDone, true, 0, ""},
        {"current by the D-blade's word", voErrRcSuccess, VoDone, true, 20002, ""},
        {"skipped", voErrRcSuccess, VoDone, false, 5007,
         "already at the source's data version (5007: text of 40007)"},
        {"offending", voErrRcSuccess, VoDone, false, 5009,
         "left out: another operation uses the LP (5009: text of 40009)"},
        {"local mirror given up", voErrRcSuccess, VoDone, false, 5032,
         "local mirror given up: no other destination made it (5032: text of 40032)"},
        {"its stream failed", voErrRcSuccess, VoDone, true, kCopyFailed,
         "the stream to it ended with an error (20005: text of 20005)"},
        {"the operation failed", VoErrDblade, VoDone, true, 0, "the mirror failed: OP ERROR"},
        {"not finished", voErrRcSuccess, VoDone, false, 0, "the stream to it did not finish"},
    };
    for (const WhyCase& c : cases) {
        StreamReport r = reportOf(c.rc, c.status, true);
        r.sinks = {entry(3, c.isDone, c.code, 7)};
        auto out = voctl::destOutcomes(r, label, decode, c.rc == voErrRcSuccess ? "" : "OP ERROR");
        ASSERT_EQ(out.size(), 1u) << c.what;
        EXPECT_EQ(out[0].why, c.why) << c.what;
        EXPECT_EQ(out[0].label, "lp3");
        EXPECT_EQ(out[0].vfsid, 2003u);
        EXPECT_EQ(out[0].megs, 7u);
        EXPECT_EQ(out[0].code, c.code);
    }
}

TEST(MirrorDestOutcome, TableAndJsonOfAFinalReport) {
    StreamReport r = reportOf(voErrRcSuccess, VoDone, true);
    r.sinks = {entry(2, true, 0, 12), entry(11, false, 5007), entry(4, false, 5009),
               entry(5, true, kCopyFailed, 3)};
    auto out = voctl::destOutcomes(r, label, decode, "");
    EXPECT_EQ(voctl::formatDestTable(out, "  "),
              "  destination  state       MB  detail\n"
              "  lp2          done        12\n"
              "  lp11         up to date  0   already at the source's data version (5007: text "
              "of 40007)\n"
              "  lp4          offending   0   left out: another operation uses the LP (5009: "
              "text of 40009)\n"
              "  lp5          failed      3   the stream to it ended with an error (20005: text "
              "of 20005)\n");

    nlohmann::json done = voctl::destJson(out[0]);
    EXPECT_EQ(done["lp"], "0x02000000000000000000000000000000");
    EXPECT_EQ(done["state"], "done");
    EXPECT_EQ(done["ok"], true);
    EXPECT_EQ(done["megs"], 12);
    EXPECT_FALSE(done.contains("why"));
    EXPECT_EQ(voctl::destJson(out[1])["ok"], true) << "up to date ended well";
    EXPECT_EQ(voctl::destJson(out[2])["ok"], false);
    EXPECT_EQ(voctl::destJson(out[3])["completionCode"], kCopyFailed);
}

// numSinks only repeats the count; the array is what arrived.
TEST(MirrorReport, EntriesComeFromTheArray) {
    VoSinkPgrs sinks[2] = {entry(1, true, 0), entry(2, false, 5009)};
    VoMirrorPgrsOut out{};
    out.voOpid = 77;
    out.numSinks = 5;
    out.sinks.sinks_len = 2;
    out.sinks.sinks_val = sinks;
    StreamReport r = voctl::streamReportOf(out);
    EXPECT_TRUE(r.multiSink);
    EXPECT_EQ(r.voOpid, 77u);
    ASSERT_EQ(r.sinks.size(), 2u);
    EXPECT_EQ(r.sinks[1].completionCode, 5009u);

    out.sinks.sinks_val = nullptr;
    EXPECT_TRUE(voctl::streamReportOf(out).sinks.empty());
}

TEST(MirrorLag, InWordsAndAsANumber) {
    struct Case {
        uint64_t src, mirror;
        int64_t lag;
        const char* text;
    };
    const Case cases[] = {
        {42, 42, 0, "up to date"},
        {42, 40, 2, "2 behind"},
        {42, 0, 42, "never filled (42 behind)"},
        {0, 0, 0, "up to date"},
        {40, 42, -2, "2 ahead of the source"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(voctl::mirrorLag(c.src, c.mirror), c.lag) << c.src << " " << c.mirror;
        EXPECT_EQ(voctl::lagText(c.src, c.mirror), c.text) << c.src << " " << c.mirror;
    }
}

TEST(MirrorRecordName, SourceAtLpWithinTheLimit) {
    EXPECT_EQ(voctl::mirrorRecordName("alpha", "lp2a"), "alpha@lp2a");
    const std::string longName(200, 'n');
    std::string name = voctl::mirrorRecordName(longName, "lp2a");
    EXPECT_EQ(name.size(), voctl::kMaxMirrorName);
    EXPECT_EQ(name.substr(name.size() - 5), "@lp2a") << "the LP part survives the cut";
    name = voctl::mirrorRecordName("alpha", std::string(300, 'l'));
    EXPECT_LE(name.size(), voctl::kMaxMirrorName);
    EXPECT_EQ(name.substr(0, 6), "alpha@");
}

}  // namespace
