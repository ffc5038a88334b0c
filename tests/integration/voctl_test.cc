// voctl: its argument checks and output helpers on their own, then the tool
// end to end against vod on a node.
#include <gtest/gtest.h>
#include <rpc/pmap_clnt.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "node.h"
#include "voctl/number.h"
#include "voctl/output.h"
#include "voerrors.h"

namespace vodtest {
namespace {

using nlohmann::json;

TEST(VoctlNumbers, DecimalOrHexWithinRange) {
    struct Case {
        const char* text;
        bool valid;
        uint32_t value;
    };
    const Case cases[] = {
        {"0", true, 0},
        {"40002", true, 40002},
        {"010", true, 10},  // no octal
        {"4294967295", true, 0xFFFFFFFF},
        {"0xFFFFFFFF", true, 0xFFFFFFFF},
        {"0x01859c52", true, 0x01859C52},
        {"4294967296", false, 0},
        {"0x100000000", false, 0},
        {"0x", false, 0},
        {"", false, 0},
        {"-1", false, 0},
        {"+1", false, 0},
        {" 1", false, 0},
        {"1 ", false, 0},
        {"12abc", false, 0},
        {"0xG", false, 0},
    };
    for (const Case& c : cases) {
        auto v = voctl::parseU32(c.text);
        EXPECT_EQ(v.has_value(), c.valid) << '"' << c.text << '"';
        if (v && c.valid) {
            EXPECT_EQ(*v, c.value) << c.text;
        }
    }
    EXPECT_EQ(voctl::parseU64("0xFFFFFFFFFFFFFFFF"), ~0ull);
    EXPECT_FALSE(voctl::parseU64("18446744073709551616"));
}

// Everything a ProgressBar wrote, from a memory stream.
struct Captured {
    char* buf = nullptr;
    size_t size = 0;
    FILE* f = open_memstream(&buf, &size);
    ~Captured() {
        if (f != nullptr) fclose(f);
        free(buf);
    }
    std::string text() {
        fflush(f);
        return std::string(buf, size);
    }
};

TEST(VoctlProgress, RateAndEtaFromTheFirstReading) {
    Captured c;
    voctl::ProgressBar bar(c.f, false, "copy");
    voctl::Progress p{100, 0, 1000};
    EXPECT_EQ(bar.line(p, 0), "copy [....................]   0%  100 MB  0/1000 vnodes  -- MB/s  ETA --:--");
    bar.update(p, 100.0);
    // 200 MB more in 20 s; a quarter of the vnodes in 20 s leaves 60 s.
    p = {300, 250, 1000};
    EXPECT_EQ(bar.line(p, 120.0),
              "copy [#####...............]  25%  300 MB  250/1000 vnodes  10.0 MB/s  ETA 1:00");
    p = {300, 1000, 1000};
    EXPECT_NE(bar.line(p, 130.0).find("100%  300 MB  1000/1000 vnodes"), std::string::npos);
    EXPECT_NE(bar.line(p, 130.0).find("ETA 0:00"), std::string::npos);
    p = {300, 1, 10000};
    EXPECT_NE(bar.line(p, 3700.0).find("ETA 9999:00:00"), std::string::npos) << bar.line(p, 3700.0);
}

TEST(VoctlProgress, PlainOutputIsThrottledTerminalOutputRedraws) {
    Captured plain;
    voctl::ProgressBar slow(plain.f, false, "m", 10);
    for (int t = 0; t <= 25; ++t) slow.update({uint64_t(t), uint32_t(t), 100}, t);
    slow.finish("done", 26);
    std::string text = plain.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;  // t = 0, 10, 20, finish
    EXPECT_EQ(text.find('\r'), std::string::npos);
    EXPECT_NE(text.find("done\n"), std::string::npos);

    Captured tty;
    voctl::ProgressBar live(tty.f, true, "m");
    for (int t = 0; t < 5; ++t) live.update({uint64_t(t), uint32_t(t), 100}, t);
    std::string before = tty.text();
    EXPECT_EQ(std::count(before.begin(), before.end(), '\r'), 5);
    EXPECT_EQ(before.find('\n'), std::string::npos) << "one line, redrawn";
    live.finish("cancelled", 5);
    std::string after = tty.text();
    EXPECT_EQ(after.back(), '\n');
    EXPECT_NE(after.find("cancelled"), std::string::npos);
}

// A mirror's destinations, one bar each, and a move's passes, one after the
// other, on one board.
TEST(VoctlProgress, BoardKeepsOneBarPerLabel) {
    auto reading = [](const char* label, uint64_t megs, const char* status) {
        return voctl::BarReading{label, {megs, 0, 0}, status};
    };
    Captured plain;
    voctl::ProgressBoard board(plain.f, false);
    board.update({reading("lp2a", 1, "streaming"), reading("lp2b", 0, "offending")}, "done");
    board.finish({reading("lp2a", 5, "done")}, "failed");
    std::string text = plain.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
    EXPECT_NE(text.find("lp2a [....................]  ---  1 MB"), std::string::npos) << text;
    EXPECT_NE(text.find("--:--  streaming\n"), std::string::npos) << text;
    EXPECT_NE(text.find("lp2a [....................]  ---  5 MB"), std::string::npos) << text;
    EXPECT_NE(text.find("--:--  done\n"), std::string::npos) << "its own final state";
    EXPECT_NE(text.find("lp2b [....................]  ---  0 MB"), std::string::npos) << text;
    EXPECT_NE(text.find("--:--  failed\n"), std::string::npos) << "no final state of its own";
    EXPECT_EQ(text.find("streaming  "), std::string::npos) << "a status is not repeated";

    Captured passes;
    voctl::ProgressBoard moves(passes.f, false);
    moves.update({reading("move pass 1", 3, "")}, "done");
    moves.update({reading("move pass 2", 4, "")}, "done");
    text = passes.text();
    size_t ended = text.find("  done\n");
    ASSERT_NE(ended, std::string::npos) << text;
    EXPECT_EQ(text.rfind("move pass 1 [", ended), text.rfind('\n', ended - 1) + 1)
        << "the pass before ends when the next one starts\n"
        << text;
    EXPECT_GT(text.find("move pass 2 ["), ended) << text;

    // On a terminal the two lines are redrawn in place: back up one line, redraw both.
    Captured tty;
    voctl::ProgressBoard live(tty.f, true);
    live.update({reading("lp2a", 1, "streaming"), reading("lp2b", 0, "waiting")}, "done");
    std::string first = tty.text();
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 1) << first;
    live.update({reading("lp2a", 2, "streaming"), reading("lp2b", 1, "streaming")}, "done");
    std::string second = tty.text().substr(first.size());
    EXPECT_EQ(second.rfind("\r\x1b[1A", 0), 0u) << second;
    EXPECT_EQ(std::count(second.begin(), second.end(), '\n'), 1) << second;
    live.interrupt();
    live.finish({}, "done");
    std::string rest = tty.text().substr(first.size() + second.size());
    EXPECT_EQ(rest.find("\x1b[1A"), std::string::npos)
        << "after an interruption the block starts anew below the text\n"
        << rest;
    EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 3) << rest;
    EXPECT_EQ(rest.find("streaming"), std::string::npos) << "no status but the final one";
}

TEST(VoctlUsage, BadCommandLinesExitWithStatusTwo) {
    // Parsing never needs vod, so none of these may try to reach it.
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {},
             {"nosuchcommand"},
             {"decode"},
             {"decode", "xyz"},
             {"decode", "0x100000000"},
             {"decode", "-5"},
             {"trace-mask", "1", "2"},
             {"trace-mask"},
             {"trace-mask", "vod,warning"},
             {"trace-mask", "--preset", "6"},
             {"trace-mask", "0x1080", "--preset", "2"},
             {"--timeout", "0", "ping"},
         }) {
        std::string line;
        for (const auto& a : args) line += a + " ";
        RunResult r = runProgram(voctlBinary(), args, 20);
        EXPECT_EQ(r.status, 2) << line << "\n" << r.err;
        EXPECT_FALSE(r.err.empty()) << line;
    }
    RunResult help = runProgram(voctlBinary(), {"decode", "--help"}, 20);
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("CODE"), std::string::npos);
}

// ---- against a node

class VoctlNodeTest : public VodNodeTest {};

TEST_F(VoctlNodeTest, PingReportsTheRoundTrip) {
    Node::Result r = node.voctl({"ping"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("vod on localhost answered in "), std::string::npos) << r.out;

    r = node.voctl({"--json", "-H", "127.0.0.1", "ping"});
    ASSERT_EQ(r.status, 0) << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(j["host"], "127.0.0.1");
    EXPECT_TRUE(j["rtt_ms"].is_number());
    EXPECT_GE(j["rtt_ms"].get<double>(), 0.0);
}

TEST_F(VoctlNodeTest, DecodeShowsModuleProcedureAndMessage) {
    Node::Result r = node.voctl({"decode", "40002"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("(VOD) : out of memory\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("module     VOD"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("message    out of memory"), std::string::npos) << r.out;

    r = node.voctl({"--json", "decode", "0x01859C52"});
    ASSERT_EQ(r.status, 0) << r.err;
    json j = json::parse(r.out);
    VoErrOut want;
    memset(&want, 0, sizeof want);
    ASSERT_NE(errorDecode(0x01859C52, &want), nullptr);
    std::string wantText = want.message;
    free(want.message);
    EXPECT_EQ(j["code"], 0x01859C52u);
    EXPECT_EQ(j["proc"], 389u);
    EXPECT_EQ(j["low"], 0x9C52u);
    EXPECT_EQ(j["message"], wantText);
    EXPECT_EQ(j["module"], "VOD");
    EXPECT_EQ(j["procName"], "VodVfsOpCancel");
    EXPECT_EQ(j["decodedBy"], "vod");
    EXPECT_FALSE(j.contains("vodError"));
    EXPECT_EQ(r.err, "");
}

// Without vod, decode reads the same tables itself and says so on standard
// error; the result is the one vod would have given.
TEST_F(VoctlNodeTest, DecodeWithoutVodUsesVoctlsOwnTables) {
    const struct {
        const char* how;
        std::function<void()> takeVodAway;
        const char* reason;  // in the note
    } cases[] = {
        {"vod killed, rpcbind still lists it", [&] { node.killVod(); }, "Connection refused"},
        {"unknown to rpcbind", [] { pmap_unset(VOPROG, VOVERS); }, "Program not registered"},
    };
    VoErrOut want;
    memset(&want, 0, sizeof want);
    ASSERT_NE(errorDecode(0x01859C52, &want), nullptr);
    const std::string wantText = want.message;
    free(want.message);

    for (const auto& c : cases) {
        SCOPED_TRACE(c.how);
        c.takeVodAway();
        Node::Result r = node.voctl({"--timeout", "5", "decode", "0x01859C52"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out.rfind(wantText + "\n", 0), 0u) << r.out;
        EXPECT_NE(r.out.find("procedure  389 VodVfsOpCancel"), std::string::npos) << r.out;
        EXPECT_NE(r.err.find("voctl: note: "), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.reason), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("decoded by voctl's own tables"), std::string::npos) << r.err;

        r = node.voctl({"--json", "--timeout", "5", "decode", "0x01859C52"});
        ASSERT_EQ(r.status, 0) << r.err;
        json j = json::parse(r.out);
        EXPECT_EQ(j["decodedBy"], "voctl");
        EXPECT_NE(j["vodError"].get<std::string>().find(c.reason), std::string::npos) << r.out;
        EXPECT_EQ(j["message"], wantText);
        EXPECT_EQ(j["proc"], 389u);
        EXPECT_EQ(j["low"], 0x9C52u);
        EXPECT_EQ(j["procName"], "VodVfsOpCancel");
    }
}

TEST_F(VoctlNodeTest, TraceMaskAndDbgDump) {
    Node::Result r = node.voctl({"--json", "trace-mask", "0xFFFFFFFF"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["privateLog"], "opened");
    struct stat st;
    EXPECT_EQ(stat("/var/log/vod.log", &st), 0);

    r = node.voctl({"trace-mask", "0x1080"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("0x00001080"), std::string::npos) << r.out;

    // A preset and names go out as the mask word they stand for.
    const struct {
        std::vector<std::string> args;
        const char* word;
    } ways[] = {
        {{"trace-mask", "--preset", "2"}, "0xFFFDF0E0"},
        {{"trace-mask", "vod,vldb,warn,fatal"}, "0x000030C0"},
        {{"trace-mask", "audit"}, "0xFFFFF020"},
    };
    for (const auto& w : ways) {
        r = node.voctl(w.args);
        EXPECT_EQ(r.status, 0) << w.args.back() << r.err;
        EXPECT_NE(r.out.find(w.word), std::string::npos) << w.args.back() << ": " << r.out;
    }

    r = node.voctl({"dbgdump"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "requested\n");
}

TEST_F(VoctlNodeTest, UnreachableVodExitsWithStatusThree) {
    node.killVod();
    // rpcbind still lists the dead vod: the connection itself is refused.
    Node::Result r = node.voctl({"--timeout", "5", "ping"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_NE(r.err.find("RPC"), std::string::npos) << r.err;

    // Unknown to rpcbind, and in JSON mode.
    pmap_unset(VOPROG, VOVERS);
    r = node.voctl({"--json", "--timeout", "5", "ping"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(j["status"], 3);
    EXPECT_NE(j["error"].get<std::string>().find("RPC"), std::string::npos);

    // No route to the host at all.
    r = node.voctl({"-H", "192.0.2.1", "--timeout", "5", "ping"});
    EXPECT_EQ(r.status, 3) << r.out << r.err;
}

}  // namespace
}  // namespace vodtest
