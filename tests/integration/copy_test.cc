// Volume copy end to end: the tool's reading of progress reports on its own,
// then copies on a node with the simulated cluster, checked by what a user
// sees afterwards: contents, VLDB records, D-blade volumes and the VODB.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cluster_fixture.h"
#include "voctl/copy_report.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;
using voctl::CopyOutcome;
using voctl::CopyPhase;

constexpr unsigned kVicCancelled = 20036;

VoCopyPgrsOut report(int rc, uint32_t srcVfs, VoStatusCode status, unsigned srcCode,
                     unsigned sinkDone, unsigned sinkCode, int func = 0) {
    VoCopyPgrsOut r{};
    r.rc = static_cast<voErrRc>(rc);
    r.func = static_cast<voErrFunc>(func);
    r.src.vfsId = srcVfs;
    r.src.status = status;
    r.src.completionCode = srcCode;
    r.sink.isDone = sinkDone;
    r.sink.completionCode = sinkCode;
    return r;
}

TEST(CopyReport, PhaseComesFromTheRcAndTheStreamCounters) {
    struct Case {
        VoCopyPgrsOut r;
        CopyPhase want;
    };
    const Case cases[] = {
        {report(VoJobInit, 0, VoRunning, 0, 0, 0), CopyPhase::Initialising},
        {report(0, 7, VoRunning, 0, 0, 0), CopyPhase::Streaming},
        {report(0, 7, VoPaused, 0, 0, 0), CopyPhase::Paused},
        {report(voErrEndStream, 7, VoDone, 0, 1, 0), CopyPhase::StreamEnded},
        {report(voErrRollForwardOp, 7, VoDone, 0, 1, 0), CopyPhase::RollingForward},
        {report(voErrRollBackOp, 0, VoRunning, 0, 0, 0), CopyPhase::RollingBack},
        {report(voErrNoSuchOp, 0, VoRunning, 0, 0, 0), CopyPhase::Gone},
        // A failed poll of the running stream is not the end...
        {report(voErrRpcFailure, 7, VoRunning, 0, 0, 0, voErrDbladeIncrCopyProgressRpc),
         CopyPhase::PollFailed},
        // ...but a copy that retired with a transport failure elsewhere is.
        {report(voErrRpcFailure, 7, VoDone, 0, 1, 0, voErrVldbCreateRecordRpc), CopyPhase::Final},
        // rc 0 with a finished stream: a running poll would have said voErrEndStream.
        {report(0, 7, VoDone, 0, 1, 0), CopyPhase::Final},
        // rc 0 without a stream: rebuilt after a restart and retired.
        {report(0, 0, VoRunning, 0, 0, 0), CopyPhase::Final},
        {report(VoErrDblade, 7, VoDone, 0, 1, 0, voErrDbladeVolCreate), CopyPhase::Final},
    };
    for (const Case& c : cases)
        EXPECT_EQ(voctl::classifyCopyReport(c.r), c.want)
            << "rc=" << c.r.rc << " src.vfsId=" << c.r.src.vfsId << " status=" << c.r.src.status
            << " func=" << c.r.func << ": got "
            << voctl::copyPhaseName(voctl::classifyCopyReport(c.r));
}

TEST(CopyReport, FinalOutcomeAppliesTheSuccessTestsOfAConclusion) {
    struct Case {
        const char* what;
        VoCopyPgrsOut r;
        CopyOutcome want;
    };
    const Case cases[] = {
        {"clean", report(0, 7, VoDone, 0, 1, 0), CopyOutcome::Copied},
        {"sink already up to date", report(0, 7, VoDone, 0, 1, 20002), CopyOutcome::Copied},
        {"sink cancelled", report(0, 7, VoDone, 0, 1, kVicCancelled), CopyOutcome::RolledBack},
        {"source failed", report(0, 7, VoDone, 20025, 1, 0), CopyOutcome::RolledBack},
        {"sink not finished", report(0, 7, VoDone, 0, 0, 0), CopyOutcome::RolledBack},
        {"stream not done", report(0, 7, VoRunning, 0, 1, 0, voErrDbladeIncrCopyProgress),
         CopyOutcome::RolledBack},
        {"error triple", report(VoErrDblade, 7, VoDone, 0, 1, 0, voErrDbladeVolSetAttr),
         CopyOutcome::RolledBack},
        {"no stream counters", report(0, 0, VoRunning, 0, 0, 0), CopyOutcome::Unknown},
    };
    for (const Case& c : cases) EXPECT_EQ(voctl::outcomeOfFinalReport(c.r), c.want) << c.what;
}

// The low half must land in the catalog of the component that failed, or the
// text the user reads belongs to another error.
TEST(CopyReport, FuncrcIsDecodedInTheCodeSpaceOfTheFailingFunction) {
    struct Case {
        voErrFunc func;
        unsigned funcrc;
        unsigned low;
        const char* text;  // part of the decoded message, or null
    };
    const Case cases[] = {
        {voErrVodValidate, VOD_ERR_BUSY_DELETE, 40024, "conflicts with existing VFS Delete"},
        {voErrVodValidate, VOD_ERR_BUSY_COPY, 40022, "conflicts with existing VFS Copy"},
        {voErrVodMkVodbRec, VOD_ERR_NO_VLDB_CLIENT, 40003, "no RPC client to VLDB"},
        {voErrVldbCreateRecord, 101, 30501, "VFS name already exists"},
        {voErrVldbCreateRecordRpc, RPC_TIMEDOUT, 30305, "RPC call timed out"},
        {voErrDbladeVolCreate, 0x10, 0x10, "VFS not found"},
        {voErrDbladeIncrCopyMirror, 20002, 20002, "sink is already up-to-date"},
        {voErrVodClntTcpCreate, 0, 0, nullptr},
        {voErrFuncSuccess, 5, 0, nullptr},
        {voErrValidateSinkDV, 7, 0, nullptr},
    };
    for (const Case& c : cases) {
        unsigned low = voctl::decodableFuncrc(c.func, c.funcrc);
        EXPECT_EQ(low, c.low) << "func " << c.func << " funcrc " << c.funcrc;
        if (c.text == nullptr || low != c.low) continue;
        VoErrOut out{};
        char* text = errorDecode(low, &out);
        ASSERT_NE(text, nullptr);
        EXPECT_NE(std::string(text).find(c.text), std::string::npos) << text;
        free(text);
    }
}

TEST(VoctlCopyUsage, MalformedCommandLinesAreRefusedBeforeVodIsAsked) {
    const std::string lp(32, 'A');
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"copy"},
             {"copy", "7", lp, lp},
             {"copy", "x7", lp, lp, "name"},
             {"copy", "7", lp, lp, ""},
             {"copy", "7", lp, lp, std::string(129, 'n')},
             {"copy", "7", lp, lp, "name", "--interval", "0"},
             {"copy-progress", "7", lp, "8"},
             {"copy-cancel", "7", lp, "0x1FFFFFFFF", lp},
             {"copy-pause", "7", lp, "8", lp, "extra"},
         }) {
        std::string line;
        for (const auto& a : args) line += a + " ";
        RunResult r = runProgram(voctlBinary(), args, 20);
        EXPECT_EQ(r.status, 2) << line << "\n" << r.err;
    }
}

// ---- on a node

// The ndjson lines of voctl --json copy.
std::vector<json> jsonLines(const std::string& out) {
    std::vector<json> lines;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line))
        if (!line.empty()) lines.push_back(json::parse(line));
    return lines;
}

// The clone id from vod's trace "... dbladeCloneVfs src S clone C".
uint32_t cloneIdFromTrace(const std::string& trace, uint32_t src) {
    std::string needle = "dbladeCloneVfs src " + std::to_string(src) + " clone ";
    size_t at = trace.find(needle);
    return at == std::string::npos ? 0 : std::stoul(trace.substr(at + needle.size()));
}

// The sink's VLDB record inherits what describes the volume, not where it is.
void expectSinkRecordLikeSource(const json& src, const json& sink, const std::string& name) {
    ASSERT_FALSE(sink.is_null()) << "no VLDB record for the sink";
    EXPECT_EQ(sink["name"], name);
    EXPECT_EQ(sink["type"], src["type"]) << "volume type";
    EXPECT_EQ(sink["vserver"], src["vserver"]) << "virtual server";
}

TEST_F(CopyNodeTest, ReadWriteSourceIsCopiedThroughACloneThatIsRemovedAfterwards) {
    uint32_t src = makeVolume("rwsource", "lp1a", 24, 48 * 1024);
    ASSERT_NE(src, 0u);
    sim({"vol-write", std::to_string(src), "lp1a", "docs/readme.txt", "--text", "kept as is"});
    const std::string srcSum = checksum(src, "lp1a");
    std::set<VolumeKey> before = volumeKeys();
    uint64_t clones = callCount("volclone");

    Node::Result r = node.voctl(
        {"--json", "copy", std::to_string(src), "lp1a", "lp2a", "rwcopy", "--interval", "0.05"},
        120);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::vector<json> lines = jsonLines(r.out);
    ASSERT_GE(lines.size(), 2u) << r.out;
    EXPECT_EQ(lines.front()["event"], "started");
    for (size_t i = 1; i + 1 < lines.size(); ++i) {
        EXPECT_EQ(lines[i]["event"], "progress") << lines[i];
    }
    const json& fin = lines.back();
    EXPECT_EQ(fin["event"], "final");
    EXPECT_EQ(fin["outcome"], "copied") << fin;
    uint32_t sink = lines.front()["sinkVfsid"].get<uint32_t>();
    ASSERT_NE(sink, 0u);

    EXPECT_EQ(checksum(sink, "lp2a"), srcSum) << "the copy's contents differ from the source's";
    EXPECT_EQ(checksum(src, "lp1a"), srcSum) << "the source changed";

    EXPECT_EQ(callCount("volclone"), clones + 1) << "a read-write source is streamed from a clone";
    uint32_t clone = cloneIdFromTrace(node.vodOutput(), src);
    EXPECT_NE(clone, 0u) << "no clone traced";
    EXPECT_NE(clone, src);
    EXPECT_EQ(fin["src"]["vfsid"], clone) << "the stream did not read the clone";

    json sinkRec = vldbRecord(sink, "lp2a");
    expectSinkRecordLikeSource(vldbRecord(src, "lp1a"), sinkRec, "rwcopy");
    for (const auto& v : volumes()) {
        if (v.vfsid == sink && !sinkRec.is_null()) {
            EXPECT_EQ(sinkRec["dataVer"].get<uint64_t>(), v.dv)
                << "the sink's VLDB record does not expect the data version it holds";
        }
    }

    before.insert({"lp2a", sink});
    expectSettled(before);  // the clone is gone from the D-blade and the VLDB
}

TEST_F(CopyNodeTest, ReadOnlySourceFeedsTwoCopiesAtOnceWithoutAClone) {
    uint32_t src = makeVolume("rosource", "lp1b", 16, 64 * 1024);
    ASSERT_NE(src, 0u);
    VoOut ro = setRo(src, "lp1b");
    EXPECT_EQ(ro.rc, voErrRcSuccess) << "vosetro func=" << ro.func << " funcrc=" << ro.funcrc;
    const std::string srcSum = checksum(src, "lp1b");
    std::set<VolumeKey> before = volumeKeys();
    uint64_t clones = callCount("volclone");
    speed(256);  // both copies stay in flight while the second one starts

    CopyKey a = copyOf(src, "lp1b", "lp2a", "rocopy-a");
    CopyKey b = copyOf(src, "lp1b", "lp2b", "rocopy-b");
    ASSERT_NE(a.sinkVid, 0u);
    ASSERT_NE(b.sinkVid, 0u) << "a second copy of a read-only source must be allowed";

    // Each copy streams from the source itself: its op src record is the source.
    int opSrcRecords = 0;
    for (const auto& rec : vodbRecords())
        if (rec["role"] == 3) {
            ++opSrcRecords;
            EXPECT_EQ(rec["vfsid"], src) << rec;
        }
    EXPECT_EQ(opSrcRecords, 2) << sim({"vodb"});

    speed(0);
    for (const CopyKey* k : {&a, &b}) {
        VoCopyPgrsOut end = waitForEnd(*k, 60);
        EXPECT_EQ(voctl::outcomeOfFinalReport(end), CopyOutcome::Copied)
            << "sink " << k->sinkVid << " rc=" << end.rc << " sink code "
            << end.sink.completionCode;
        EXPECT_EQ(end.src.vfsId, src) << "the stream did not read the source itself";
        EXPECT_EQ(checksum(k->sinkVid, k->sinkLp), srcSum);
        json srcRec = vldbRecord(src, "lp1b");
        expectSinkRecordLikeSource(srcRec, vldbRecord(k->sinkVid, k->sinkLp),
                                   k == &a ? "rocopy-a" : "rocopy-b");
        before.insert({k->sinkLp, k->sinkVid});
    }
    EXPECT_EQ(callCount("volclone"), clones) << "no clone for a read-only source";
    EXPECT_EQ(checksum(src, "lp1b"), srcSum);
    expectSettled(before);
}

TEST_F(CopyNodeTest, CancelMidStreamRollsBackAndRemovesSinkAndClone) {
    uint32_t src = makeVolume("tocancel", "lp1a", 32, 64 * 1024);
    ASSERT_NE(src, 0u);
    const std::string srcSum = checksum(src, "lp1a");
    std::set<VolumeKey> before = volumeKeys();
    CopyKey key;
    startSlowCopy(src, "lp1a", "lp2b", "cancelled", &key);
    ASSERT_FALSE(HasFatalFailure());
    VoCopyPgrsOut r{};

    // Hold the first clean-up call so the roll-back can be seen in progress.
    hold("voldelete");
    Node::Result c = node.voctl({"--json", "copy-cancel", std::to_string(src), "lp1a",
                                 std::to_string(key.sinkVid), "lp2b"});
    ASSERT_EQ(c.status, 0) << c.out << c.err;
    EXPECT_EQ(json::parse(c.out)["rc"], 0);

    std::vector<int> rcs;
    EXPECT_TRUE(waitForReport(key, isRollingBack, 30, &r, &rcs))
        << "no voErrRollBackOp while the clean-up is held; last rc=" << r.rc;
    release("voldelete");
    VoCopyPgrsOut end = waitForEnd(key, 60, &rcs);
    EXPECT_EQ(voctl::outcomeOfFinalReport(end), CopyOutcome::RolledBack);
    EXPECT_EQ(end.sink.completionCode, kVicCancelled);
    auto rollBack = std::find(rcs.begin(), rcs.end(), voErrRollBackOp);
    EXPECT_TRUE(rollBack != rcs.end() && rollBack + 1 != rcs.end())
        << "voErrRollBackOp must come before the final report";

    speed(0);
    EXPECT_EQ(checksum(src, "lp1a"), srcSum);
    expectSettled(before);
}

TEST_F(CopyNodeTest, PauseStopsTheStreamAndResumeFinishesIt) {
    uint32_t src = makeVolume("topause", "lp1b", 32, 64 * 1024);
    ASSERT_NE(src, 0u);
    const std::string srcSum = checksum(src, "lp1b");
    std::set<VolumeKey> before = volumeKeys();
    CopyKey key;
    startSlowCopy(src, "lp1b", "lp2a", "paused", &key);
    ASSERT_FALSE(HasFatalFailure());
    VoCopyPgrsOut r{};
    const std::string args[] = {std::to_string(src), "lp1b", std::to_string(key.sinkVid), "lp2a"};

    Node::Result p = node.voctl({"copy-pause", args[0], args[1], args[2], args[3]});
    ASSERT_EQ(p.status, 0) << p.err;
    ASSERT_TRUE(waitForReport(
        key, [](const VoCopyPgrsOut& x) { return x.rc == 0 && x.src.status == VoPaused; }, 10, &r))
        << "the stream does not report itself paused";

    // Standing still can only be seen over time: the D-blade's block counter
    // (finer than vod's vnodes and megabytes) must not move between polls.
    auto blocksRead = [&] {
        std::string s = sim({"stream-show", std::to_string(r.voOpid)});
        size_t at = s.find("blksRead=");
        return at == std::string::npos ? std::string("?") : s.substr(at, s.find(' ', at) - at);
    };
    const VoCopyPgrsOut paused = progress(key);
    const std::string blocks = blocksRead();
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        VoCopyPgrsOut now = progress(key);
        EXPECT_EQ(now.src.vnodesProcessed, paused.src.vnodesProcessed);
        EXPECT_EQ(now.src.megsProcessed, paused.src.megsProcessed);
        EXPECT_EQ(now.src.status, VoPaused);
        EXPECT_EQ(blocksRead(), blocks);
    }

    Node::Result q = node.voctl({"--json", "copy-resume", args[0], args[1], args[2], args[3]});
    ASSERT_EQ(q.status, 0) << q.err;
    EXPECT_EQ(json::parse(q.out)["action"], "resume");
    speed(0);
    VoCopyPgrsOut end = waitForEnd(key, 60);
    EXPECT_EQ(voctl::outcomeOfFinalReport(end), CopyOutcome::Copied) << "rc=" << end.rc;
    EXPECT_GE(end.src.vnodesProcessed, paused.src.vnodesProcessed);
    EXPECT_EQ(checksum(key.sinkVid, "lp2a"), srcSum);
    before.insert({"lp2a", key.sinkVid});
    expectSettled(before);
}

// An empty source has nothing the new sink lacks: the D-blade reports the
// sink already up to date, which is a success.
TEST_F(CopyNodeTest, SinkAlreadyUpToDateCountsAsSuccess) {
    uint32_t src = makeVolume("emptysource", "lp1a", 0, 0);
    ASSERT_NE(src, 0u);
    std::set<VolumeKey> before = volumeKeys();

    CopyKey key = copyOf(src, "lp1a", "lp2a", "emptycopy");
    ASSERT_NE(key.sinkVid, 0u);
    VoCopyPgrsOut end = waitForEnd(key, 60);
    EXPECT_EQ(end.sink.completionCode, voctl::kSinkUpToDate);
    EXPECT_EQ(voctl::outcomeOfFinalReport(end), CopyOutcome::Copied) << "rc=" << end.rc;
    EXPECT_FALSE(vldbRecord(key.sinkVid, "lp2a").is_null()) << "the copy was not committed";
    EXPECT_EQ(checksum(key.sinkVid, "lp2a"), checksum(src, "lp1a"));
    before.insert({"lp2a", key.sinkVid});
    expectSettled(before);
}

// A sink LP too small for the data makes the sink's side of the stream fail;
// the copy must roll back, and voctl must say why.
TEST_F(CopyNodeTest, FailedSinkCompletionRollsBack) {
    sim({"lp-create", "tiny", "2", "1"});
    uint32_t src = makeVolume("toobig", "lp1a", 12, 256 * 1024);
    ASSERT_NE(src, 0u);
    const std::string srcSum = checksum(src, "lp1a");
    std::set<VolumeKey> before = volumeKeys();
    const std::string srcLpHex = lpHex("lp1a");

    // Text mode, LPs by id and by name.
    Node::Result r = node.voctl(
        {"copy", std::to_string(src), srcLpHex, "tiny", "wontfit", "--interval", "0.05"}, 120);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_NE(r.err.find("failed and was rolled back"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("sink side of the stream ended with"), std::string::npos) << r.err;

    EXPECT_EQ(checksum(src, "lp1a"), srcSum);
    for (const auto& v : volumes()) {
        EXPECT_NE(v.lp, "tiny") << "sink " << v.vfsid << " left behind";
    }
    expectSettled(before);
}

// Each D-blade answers at its own address: a copy from the local D-blade to an
// LP of D-blade 2 makes, sets and (on roll-back) deletes its sink through
// D-blade 2 alone, and its clone through D-blade 1 alone. Faults aimed at
// D-blade 2 leave the source's D-blade answering.
TEST_F(CopyNodeTest, TheSinkIsReachedAtItsOwnDbladesAddress) {
    struct Calls {
        uint64_t one, two;  // at D-blade 1 and at D-blade 2
        bool operator==(const Calls& o) const { return one == o.one && two == o.two; }
    };
    struct Case {
        const char* name;
        std::vector<std::vector<std::string>> faults;
        CopyOutcome outcome;
        Calls volcreate, volsetattr, voldelete;
    };
    const Case cases[] = {
        {"copied", {}, CopyOutcome::Copied, {0, 1}, {0, 1}, {1, 0}},
        // The stream is refused: the sink goes again, from D-blade 2.
        {"stream refused", {{"status", "incrcopymirror", "20012"}}, CopyOutcome::RolledBack,
         {0, 1}, {0, 0}, {1, 1}},
        // D-blade 2 cannot be reached when the sink is to be made; the clean-up
        // reaches it and finds nothing to delete.
        {"sink's D-blade unreachable", {{"refuse", "dblade_vol", "--dblade", "2"}},
         CopyOutcome::RolledBack, {0, 0}, {0, 0}, {1, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string n = std::to_string(&c - cases);
        uint32_t src = makeVolume("far" + n, "lp1a", 4, 16 * 1024);
        ASSERT_NE(src, 0u);
        std::set<VolumeKey> before = volumeKeys();
        sim({"calls", "reset"});
        for (const auto& f : c.faults) fault(f);
        CopyKey key = copyOf(src, "lp1a", "lp2a", "farcopy" + n);
        ASSERT_NE(key.sinkVid, 0u);
        VoCopyPgrsOut end = waitForEnd(key, 60);
        EXPECT_EQ(voctl::outcomeOfFinalReport(end), c.outcome) << "rc=" << end.rc;
        auto calls = [&](const char* proc) { return Calls{callCount(proc, 1), callCount(proc, 2)}; };
        EXPECT_TRUE(calls("volcreate") == c.volcreate) << "volcreate at D-blade 1 and 2: "
            << callCount("volcreate", 1) << " " << callCount("volcreate", 2);
        EXPECT_TRUE(calls("volsetattr") == c.volsetattr) << "volsetattr at D-blade 1 and 2: "
            << callCount("volsetattr", 1) << " " << callCount("volsetattr", 2);
        EXPECT_TRUE(calls("voldelete") == c.voldelete) << "voldelete at D-blade 1 and 2: "
            << callCount("voldelete", 1) << " " << callCount("voldelete", 2);
        EXPECT_EQ(callCount("volclone", 2), 0u);
        sim({"fault", "clear"});
        if (c.outcome == CopyOutcome::Copied) before.insert({"lp2a", key.sinkVid});
        expectSettled(before);
    }
}

TEST_F(CopyNodeTest, CopyOfTheSinkOfAnotherCopyIsRefusedWithTheCopyCode) {
    uint32_t src = makeVolume("first", "lp1a", 16, 64 * 1024);
    ASSERT_NE(src, 0u);
    std::set<VolumeKey> before = volumeKeys();
    // The first copy's sink is made and registered; its stream has not begun.
    // It goes to the local D-blade, so that vod may be asked to copy it in turn.
    hold("incrcopymirror");
    CopyKey first = copyOf(src, "lp1a", "lp1b", "firstcopy");
    ASSERT_NE(first.sinkVid, 0u);
    ASSERT_TRUE(waitHeld("incrcopymirror"));
    uint64_t opid = vodbRecords().at(0)["opid"].get<uint64_t>();

    VoVidOut refused = startCopy(first.sinkVid, "lp1b", "lp2a", "copyofcopy");
    expectTriple(refused, voErrValidate, voErrVodValidate, VOD_ERR_BUSY_COPY);
    EXPECT_EQ(refused.vid, 0u);
    EXPECT_TRUE(node.waitForTrace("Src(" + std::to_string(first.sinkVid) +
                                      ") is busy with another opid=" + std::to_string(opid) +
                                      " opType(1)",
                                  5));
    // voctl says the same in words.
    Node::Result t =
        node.voctl({"copy", std::to_string(first.sinkVid), "lp1b", "lp2a", "copyofcopy"});
    EXPECT_EQ(t.status, 1);
    EXPECT_NE(t.err.find("conflicts with existing VFS Copy operation"), std::string::npos) << t.err;

    // Once the stream writes into it the sink is hidden on its D-blade, and a
    // copy of it is refused before the records are even looked at.
    speed(64);
    release("incrcopymirror");
    VoCopyPgrsOut r{};
    ASSERT_TRUE(waitForReport(first, isStreamingWithProgress, 30, &r));
    refused = startCopy(first.sinkVid, "lp1b", "lp2a", "copyofcopy");
    EXPECT_NE(refused.rc, voErrRcSuccess);
    EXPECT_EQ(refused.vid, 0u);

    EXPECT_EQ(cancel(first).rc, voErrRcSuccess);
    speed(0);
    waitForEnd(first, 60);
    expectSettled(before);
}

TEST_F(CopyNodeTest, CopyOfAVolumeBeingDeletedIsRefusedWithTheDeleteCode) {
    uint32_t src = makeVolume("doomed", "lp1b", 4, 4096);
    ASSERT_NE(src, 0u);
    // The D-blade refuses to delete it, so the delete stays recorded, pending.
    sim({"fault", "status", "voldelete", "5", "always"});
    EXPECT_NE(vodelete(src, "lp1b").rc, voErrRcSuccess) << "the delete was to fail";
    uint64_t delOpid = 0;
    for (const auto& rec : vodbRecords())
        if (rec["optype"] == 5 && rec["vfsid"] == src) delOpid = rec["opid"].get<uint64_t>();
    ASSERT_NE(delOpid, 0u) << "the failed delete left no record:\n" << sim({"vodb"});

    VoVidOut refused = startCopy(src, "lp1b", "lp2b", "toolate");
    expectTriple(refused, voErrValidate, voErrVodValidate, VOD_ERR_BUSY_DELETE);
    EXPECT_TRUE(node.waitForTrace("Src(" + std::to_string(src) + ") is busy with another opid=" +
                                      std::to_string(delOpid) + " opType(5)",
                                  5));
    for (const auto& rec : vodbRecords())
        EXPECT_NE(rec["optype"], 1) << "the refused copy left a record";

    // Drop the pending delete's records so the node ends clean; the volume stays.
    sim({"fault", "clear", "voldelete"});
    vopurgeop_1(&delOpid, nullptr, vo());
    EXPECT_TRUE(waitVodbEmpty(30));
}

}  // namespace
}  // namespace vodtest
