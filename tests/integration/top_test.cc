// voctl top as a person sees it: run in tmux on a node with a copy going on,
// the screen read with capture-pane until the copy has ended.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "cluster_fixture.h"

namespace vodtest {
namespace {

class TopTest : public ClusterTest {
  protected:
    void TearDown() override {
        tmux({"kill-server"});
        ClusterTest::TearDown();
    }

    // tmux with its own server socket, so nothing else's session is touched.
    RunResult tmux(std::vector<std::string> args) {
        args.insert(args.begin(), {"-S", _socket});
        return runProgram(_tmux, args, 10, {"TERM=xterm"});
    }

    std::string screen() { return tmux({"capture-pane", "-p", "-t", "top"}).out; }

    std::string _tmux = "/usr/bin/tmux";
    std::string _socket = "/run/voctl-top-test.sock";
};

// The bar's percentage on the line under the copy's line, -1 when none.
int copyPercent(const std::string& screen) {
    static const std::regex bar(R"(copy .*\n\s+\[[#.]+\]\s+(\d+)%)");
    std::smatch m;
    return std::regex_search(screen, m, bar) ? std::stoi(m[1]) : -1;
}

TEST_F(TopTest, ShowsACopysBarMovingAndThenItsOutcome) {
    uint32_t src = makeVolume("watched", "lp1a", 32, 64 * 1024);
    ASSERT_NE(src, 0u);
    speed(256);  // 2 MiB at 256 KiB/s: several refreshes while it streams

    // top first, so that it sees the copy from its start; it is the only
    // client polling the copy, so it gets the final report too.
    ASSERT_EQ(tmux({"new-session", "-d", "-s", "top", "-x", "150", "-y", "30",
                    std::string(voctlBinary()) + " top --interval 0.5 --linger 60"})
                  .status,
              0);
    ASSERT_TRUE(pollUntil([&] { return screen().find("voctl top") != std::string::npos; }, 20))
        << screen();
    EXPECT_NE(screen().find("no operations recorded in the VODB"), std::string::npos) << screen();

    CopyKey key = copyOf(src, "lp1a", "lp2a", "watched.copy");
    ASSERT_NE(key.sinkVid, 0u);

    std::set<int> percents;
    std::string last;
    bool ended = pollUntil(
        [&] {
            last = screen();
            const int p = copyPercent(last);
            if (p >= 0) percents.insert(p);
            return last.find("copied") != std::string::npos;
        },
        90, 0.2);
    ASSERT_TRUE(ended) << last;

    // The bar moved: several readings short of the end were on the screen.
    std::set<int> partial;
    for (int p : percents)
        if (p < 100) partial.insert(p);
    EXPECT_GE(partial.size(), 2u) << "percentages seen: " << percents.size();

    // The copy's line: kind, volume and LPs by name, and the outcome.
    const std::regex done("copy +vfs " + std::to_string(src) + " on lp1a -> vfs " +
                          std::to_string(key.sinkVid) + " on lp2a +copied");
    EXPECT_TRUE(std::regex_search(last, done)) << last;
    EXPECT_TRUE(waitVodbEmpty(10));
}

TEST_F(TopTest, PlainLinesAndJsonWhenNotATerminal) {
    uint32_t src = makeVolume("piped", "lp1a", 32, 64 * 1024);
    ASSERT_NE(src, 0u);
    speed(256);
    CopyKey key = copyOf(src, "lp1a", "lp2a", "piped.copy");
    ASSERT_NE(key.sinkVid, 0u);
    ASSERT_TRUE(pollUntil([&] { return vodbRecords().size() == 3; }, 20)) << vodbRecords();

    Node::Result snap = node.voctl({"--json", "top"});
    ASSERT_EQ(snap.status, 0) << snap.err;
    const nlohmann::json j = nlohmann::json::parse(snap.out);
    ASSERT_EQ(j["ops"].size(), 1u) << snap.out;
    const nlohmann::json& op = j["ops"][0];
    EXPECT_EQ(op["kind"], "copy");
    EXPECT_EQ(op["vfsid"], src);
    EXPECT_EQ(op["lpName"], "lp1a");
    EXPECT_EQ(op["records"].size(), 3u) << op;  // source, its clone, the sink

    // Piped: a line when something changes, no screen control characters.
    Node::Result plain = node.voctl({"top", "--interval", "0.5", "--count", "6"});
    ASSERT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(plain.out.find('\x1b'), std::string::npos);
    EXPECT_NE(plain.out.find(" copy "), std::string::npos) << plain.out;
    speed(0);
    EXPECT_TRUE(waitVodbEmpty(60));
}

}  // namespace
}  // namespace vodtest
