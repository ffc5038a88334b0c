#include "votrace.h"

#include <gtest/gtest.h>

#include <atomic>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string kTime = R"(\d\d:\d\d:\d\d\.\d\d\d)";

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t nl = text.find('\n', start);
        if (nl == std::string::npos) nl = text.size() - 1;
        lines.push_back(text.substr(start, nl - start + 1));
        start = nl + 1;
    }
    return lines;
}

// Each test gets a console of its own, private files in a fresh directory, foreground mode
// and a fully open mask; the process-wide trace state is put back afterwards.
class VoTraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        _savedMask = VoTrace::getMask();
        _savedIsDaemon = isDaemon;
        isDaemon = 0;
        _console = tmpfile();
        ASSERT_NE(_console, nullptr);
        VoTrace::setConsoleStream(_console);
        VoTrace::setMask(0xFFFFFFFF);
        char dirTemplate[] = "/tmp/votrace_test.XXXXXX";
        ASSERT_NE(mkdtemp(dirTemplate), nullptr);
        _dir = dirTemplate;
        _logPath = _dir + "/vod.log";
        _cntPath = _dir + "/vod.cnt";
        VoTrace::setPrivateLogPaths(_logPath.c_str(), _cntPath.c_str());
    }

    void TearDown() override {
        VoTrace::closePrivateLogFiles();
        VoTrace::setPrivateLogPaths(nullptr, nullptr);
        VoTrace::setConsoleStream(nullptr);
        if (_console) fclose(_console);
        VoTrace::setMask(_savedMask);
        isDaemon = _savedIsDaemon;
        unlink(_logPath.c_str());
        unlink(_cntPath.c_str());
        rmdir(_dir.c_str());
    }

    std::string console() {
        fflush(_console);
        std::string text;
        rewind(_console);
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, _console)) > 0) text.append(buf, n);
        fseek(_console, 0, SEEK_END);
        return text;
    }

    // The message part of the only console line, after the time field.
    std::string consoleMessage() {
        std::smatch m;
        std::string text = console();
        std::regex re("^\\d+ . \\w* " + kTime + " ([\\s\\S]*)$");
        if (!std::regex_match(text, m, re)) return "<no line: " + text + ">";
        return m[1];
    }

    void clearConsole() {
        fflush(_console);
        if (ftruncate(fileno(_console), 0) != 0) ADD_FAILURE() << "ftruncate";
        rewind(_console);
    }

    unsigned _savedMask = 0;
    int _savedIsDaemon = 1;
    FILE* _console = nullptr;
    std::string _dir, _logPath, _cntPath;
};

TEST_F(VoTraceTest, ConsoleLineShowsDepthLetterModuleTimeAndText) {
    struct Row {
        VoTrace::Module m;
        VoTrace::Level l;
        const char* head;  // letter, blank, module name
    };
    const Row rows[] = {
        {VoTrace::vo_vod, VoTrace::vo_detail, "D VOD"},
        {VoTrace::vo_vldb, VoTrace::vo_debug, "D VLDB"},
        {VoTrace::vo_srcvol, VoTrace::vo_entry, "> VOSC"},
        {VoTrace::vo_sinkvol, VoTrace::vo_exit, "< VOSK"},
        {VoTrace::vo_incrcopy, VoTrace::vo_event, "E INCP"},
        {VoTrace::vo_rpc, VoTrace::vo_audit, "A RPC"},
        {VoTrace::vo_vod, VoTrace::vo_warn, "W VOD"},
        {VoTrace::vo_vod, VoTrace::vo_fatal, "F VOD"},
        {VoTrace::vo_all_mod, VoTrace::vo_all_lvl, "  "},
    };
    for (const Row& r : rows) {
        clearConsole();
        {
            VoTrace::Depth d1;
            VoTrace::Depth d2;
            EXPECT_EQ(VoTrace::depth(), 2);
            VoTrace::tr(r.m, r.l, "Mixed %s %d\n", "case", 7);
        }
        std::regex re(std::string("2 ") + r.head + " " + kTime + " Mixed case 7\n");
        EXPECT_TRUE(std::regex_match(console(), re)) << r.head << ": " << console();
    }
    EXPECT_EQ(VoTrace::depth(), 0);
}

TEST_F(VoTraceTest, MacrosTestTheMaskBeforeEvaluatingArguments) {
    int evaluated = 0;
    VoTrace::setMask(0x0003F0E0);
    VO_TR(vo_vldb, vo_event, "n=%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(console(), "");

    VoTrace::setMask(0xFFFFFFFF);
    int line = __LINE__ + 1;
    VO_TR(vo_vldb, vo_event, "n=%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(consoleMessage(), "TestBody " + std::to_string(line) + " n=1\n");

    clearConsole();
    VO_TR_RAW(vo_vod, vo_fatal, "cannot create socket. exit.\n");
    EXPECT_EQ(consoleMessage(), "cannot create socket. exit.\n");
}

TEST_F(VoTraceTest, MaskNeedsBothModuleAndLevelBits) {
    struct Row {
        unsigned mask;
        VoTrace::Module m;
        VoTrace::Level l;
        bool emitted;
    };
    const Row rows[] = {
        {0x0003F0E0, VoTrace::vo_vod, VoTrace::vo_audit, true},
        {0x0003F0E0, VoTrace::vo_vod, VoTrace::vo_event, false},
        {0x0001F0E0, VoTrace::vo_rpc, VoTrace::vo_fatal, false},
        {0x00020080, VoTrace::vo_rpc, VoTrace::vo_fatal, true},
        {0x000000FF, VoTrace::vo_vod, VoTrace::vo_fatal, false},
        // The "all" entries need every bit of their half of the word.
        {0x0003F0E0, VoTrace::vo_all_mod, VoTrace::vo_warn, false},
        {0xFFFFF040, VoTrace::vo_all_mod, VoTrace::vo_warn, true},
        {0xFFFFFFFE, VoTrace::vo_vod, VoTrace::vo_all_lvl, false},
        {0x00001FFF, VoTrace::vo_vod, VoTrace::vo_all_lvl, true},
    };
    for (const Row& r : rows) {
        clearConsole();
        VoTrace::setMask(r.mask);
        EXPECT_EQ(VoTrace::wants(r.m, r.l), r.emitted) << std::hex << r.mask;
        VoTrace::tr(r.m, r.l, "x\n");
        EXPECT_EQ(!console().empty(), r.emitted) << std::hex << r.mask;
    }
}

TEST_F(VoTraceTest, MaskSettersReplaceOnlyTheirOwnBits) {
    VoTrace::setMask(0x12345678);
    VoTrace::setModMask(0xABCDEFFF);
    EXPECT_EQ(VoTrace::getMask(), 0xABCDE678u);
    VoTrace::setLvlMask(0xFFFFF001);
    EXPECT_EQ(VoTrace::getMask(), 0xABCDE001u);

    VoTrace fresh;
    EXPECT_EQ(VoTrace::getMask(), 0x0003F0E0u);
}

TEST_F(VoTraceTest, AThreadMaskRulesOnlyItsOwnThreadAndLeavesTheWordAlone) {
    VoTrace::setMask(0x000010C0);
    std::atomic<bool> inside{false}, done{false};
    std::atomic<bool> otherWants{true};
    std::thread worker([&] {
        VoTrace::ThreadMask all(0xFFFFFFFF);
        EXPECT_TRUE(VoTrace::wants(VoTrace::vo_vldb, VoTrace::vo_debug));
        inside = true;
        while (!done) std::this_thread::yield();
    });
    while (!inside) std::this_thread::yield();
    // Meanwhile the word is what it was, for everyone else, and a setter
    // changes it as usual.
    EXPECT_EQ(0x000010C0u, VoTrace::getMask());
    otherWants = VoTrace::wants(VoTrace::vo_vldb, VoTrace::vo_debug);
    VoTrace::setLvlMask(0x80);
    done = true;
    worker.join();
    EXPECT_FALSE(otherWants);
    EXPECT_EQ(0x00001080u, VoTrace::getMask());

    {
        VoTrace::ThreadMask quiet(0);
        VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_fatal, "x\n");
        EXPECT_EQ(console(), "");
    }
    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_fatal, "x\n");
    EXPECT_NE(console(), "");
}

TEST_F(VoTraceTest, PresetsSetModuleAndLevelMasks) {
    const struct {
        int preset;
        unsigned mask;
    } rows[] = {
        {0, 0x000010C0},       {1, 0xFFFDF0C0}, {2, 0xFFFDF0E0},       {3, 0xFFFDFFFE},
        {4, 0xFFFFFFFE},       {5, 0xFFFFFFFF}, {99, 0xFFFFFFFF},      {-1, 0xFFFFFFFF},
        {INT_MIN, 0xFFFFFFFF},
    };
    for (const auto& r : rows) {
        VoTrace::setMask(0x00000000);
        voApplyTracePreset(r.preset);
        EXPECT_EQ(VoTrace::getMask(), r.mask) << "preset " << r.preset;
        // What voctl sends for "trace-mask --preset N" is the word the daemon would set.
        EXPECT_EQ(voTracePresetMask(r.preset), r.mask) << "preset " << r.preset;
    }
}

TEST_F(VoTraceTest, NamesReadAsTheirMaskBitsInAnyCase) {
    const struct {
        const char* name;
        unsigned bit;
        bool module;
    } rows[] = {
        {"VOD", 0x1000, true},   {"vldb", 0x2000, true},  {"Vosc", 0x4000, true},
        {"vosk", 0x8000, true},  {"incp", 0x10000, true}, {"RPC", 0x20000, true},
        {"detail", 0x01, false}, {"DEBUG", 0x02, false},  {"entry", 0x04, false},
        {"exit", 0x08, false},   {"event", 0x10, false},  {"audit", 0x20, false},
        {"warn", 0x40, false},   {"fatal", 0x80, false},  {"", 0, false},
        {"vo_warn", 0, false},   {"warning", 0, false},   {"all", 0, false},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(voTraceBitOfName(r.name), r.bit) << r.name;
        if (r.bit != 0) {
            EXPECT_EQ(voTraceIsModuleBit(r.bit), r.module) << r.name;
        }
    }
    EXPECT_EQ(voTraceBitOfName(nullptr), 0u);
}

TEST_F(VoTraceTest, OverlongMessageIsReplacedByOverflowNotice) {
    const struct {
        size_t len;
        std::string expected;
    } rows[] = {
        {300, "trace buffer overflow: 300\n"},
        {257, "trace buffer overflow: 257\n"},
        {256, std::string(255, 'a')},  // cut by one, deliberately not reported
        {255, std::string(255, 'a')},
    };
    for (const auto& r : rows) {
        clearConsole();
        VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_audit, "%s", std::string(r.len, 'a').c_str());
        EXPECT_EQ(consoleMessage(), r.expected) << r.len;
    }
}

TEST_F(VoTraceTest, PrivateLogUpperCasesWarningsButConsoleKeepsCase) {
    VoTrace::openPrivateLogFiles();
    ASSERT_TRUE(VoTrace::enabledPrivateLog());
    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_warn, "Disk Low %d\n", 1);
    EXPECT_EQ(consoleMessage(), "Disk Low 1\n");
    std::regex re("0 W VOD " + kTime + " DISK LOW 1\n");
    EXPECT_TRUE(std::regex_match(readFile(_logPath), re)) << readFile(_logPath);
}

TEST_F(VoTraceTest, PrivateLogIgnoresMaskButSkipsDetailAndQuietRpc) {
    VoTrace::setMask(0);
    EXPECT_FALSE(VoTrace::wants(VoTrace::vo_vod, VoTrace::vo_audit));
    VoTrace::openPrivateLogFiles();
    EXPECT_TRUE(VoTrace::wants(VoTrace::vo_vod, VoTrace::vo_detail));

    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_all_lvl, "all levels\n");
    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_detail, "detail\n");
    VoTrace::tr(VoTrace::vo_rpc, VoTrace::vo_audit, "rpc audit\n");
    VoTrace::tr(VoTrace::vo_rpc, VoTrace::vo_warn, "rpc warn\n");
    VoTrace::tr(VoTrace::vo_srcvol, VoTrace::vo_debug, "debug\n");
    {
        VoTrace::Depth d1, d2, d3;
        VoTrace::tr(VoTrace::vo_rpc, VoTrace::vo_fatal, "deep\n");
    }
    // Opening again keeps the files and the line count.
    VoTrace::openPrivateLogFiles();
    VoTrace::tr(VoTrace::vo_all_mod, VoTrace::vo_event, "last\n");

    EXPECT_EQ(console(), "");
    std::vector<std::string> lines = splitLines(readFile(_logPath));
    ASSERT_EQ(lines.size(), 4u) << readFile(_logPath);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("0 W RPC " + kTime + " RPC WARN\n")));
    EXPECT_TRUE(std::regex_match(lines[1], std::regex("0 D VOSC " + kTime + " debug\n")));
    EXPECT_TRUE(std::regex_match(lines[2], std::regex("\t\t\t3 F RPC " + kTime + " DEEP\n")));
    EXPECT_TRUE(std::regex_match(lines[3], std::regex("0 E  " + kTime + " last\n")));
    EXPECT_TRUE(std::regex_match(readFile(_cntPath),
                                 std::regex("Most recent log is at line 5, time " + kTime + "\n")))
        << readFile(_cntPath);
}

TEST_F(VoTraceTest, WriteFailureClosesPrivateFiles) {
    FILE* probe = fopen("/dev/full", "w");
    if (!probe) GTEST_SKIP() << "no /dev/full";
    fclose(probe);
    VoTrace::setPrivateLogPaths("/dev/full", _cntPath.c_str());
    VoTrace::openPrivateLogFiles();
    ASSERT_TRUE(VoTrace::enabledPrivateLog());
    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_audit, "no room\n");
    EXPECT_FALSE(VoTrace::enabledPrivateLog());
    EXPECT_EQ(consoleMessage(), "no room\n");  // the console goes on
}

// The one slow test: fills the ring to see the wrap.
TEST_F(VoTraceTest, RingWrapsAfter1048576LinesAndCountFileIsNotTruncated) {
    VoTrace::setMask(0);
    VoTrace::openPrivateLogFiles();
    const int kRing = 1048576;
    for (int i = 0; i < kRing; ++i) VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_audit, "l\n");
    const std::string before = readFile(_cntPath);
    ASSERT_TRUE(std::regex_match(
        before, std::regex("Most recent log is at line 1048577, time " + kTime + "\n")))
        << before;
    const std::string lineShape = "0 A VOD " + kTime + " ";
    const size_t lineLen = 23;
    const std::string logBefore = readFile(_logPath);
    ASSERT_EQ(logBefore.size(), kRing * lineLen);

    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_audit, "w\n");
    const std::string log = readFile(_logPath);
    ASSERT_EQ(log.size(), kRing * lineLen);
    EXPECT_TRUE(std::regex_match(log.substr(0, lineLen), std::regex(lineShape + "w\n")));
    EXPECT_EQ(log.substr(lineLen), logBefore.substr(lineLen));

    // Line 1 now, with the tail of the longer earlier text left behind it.
    const std::string after = readFile(_cntPath);
    EXPECT_EQ(after.size(), before.size());
    std::string head = "Most recent log is at line 1, time ";
    ASSERT_EQ(after.compare(0, head.size(), head), 0) << after;
    size_t nl = after.find('\n');
    EXPECT_TRUE(std::regex_match(after.substr(0, nl + 1), std::regex(head + kTime + "\n")));
    EXPECT_EQ(after.substr(nl + 1), before.substr(nl + 1));

    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_audit, "w\n");
    EXPECT_EQ(readFile(_cntPath).compare(0, 30, "Most recent log is at line 2, "), 0);
}

TEST_F(VoTraceTest, ConcurrentLinesStayWhole) {
    VoTrace::openPrivateLogFiles();
    const int kThreads = 4, kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i)
                VoTrace::tr(VoTrace::vo_vldb, VoTrace::vo_audit, "t%d i%d %s\n", t, i,
                            std::string(40 + t * 20, 'x').c_str());
        });
    }
    for (auto& th : threads) th.join();

    for (const std::string& text : {console(), readFile(_logPath)}) {
        std::vector<std::string> lines = splitLines(text);
        ASSERT_EQ(lines.size(), size_t(kThreads * kLines));
        std::vector<int> next(kThreads, 0);
        std::regex re("0 A VLDB " + kTime + R"( t(\d) i(\d+) (x+)\n)");
        for (const std::string& line : lines) {
            std::smatch m;
            ASSERT_TRUE(std::regex_match(line, m, re)) << line;
            int t = std::stoi(m[1]);
            EXPECT_EQ(std::stoi(m[2]), next[t]++);  // each thread's lines in its own order
            EXPECT_EQ(m[3].length(), size_t(40 + t * 20));
        }
    }
    EXPECT_TRUE(std::regex_match(readFile(_cntPath),
                                 std::regex("Most recent log is at line 2001, time " + kTime + "\n")));
}

TEST_F(VoTraceTest, DaemonModeWritesNothingToTheConsole) {
    isDaemon = 1;
    VoTrace::tr(VoTrace::vo_vod, VoTrace::vo_debug, "votrace unit test\n");
    EXPECT_EQ(console(), "");
}

}  // namespace
