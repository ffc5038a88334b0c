#include "vodoptions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Case {
    std::vector<const char*> args;
    int preset, daemon, holdOff, keep, threads, calls;
    int timeoutCap = 0;
};

TEST(VodOptions, DefaultsLettersAloneAndWithDigits) {
    const Case cases[] = {
        // args                    preset daemon hold keep thr calls
        {{},                         1, 1, 0, 0, 10, 0},
        {{"-d"},                     4, 0, 0, 0, 10, 0},
        {{"-d0"},                    0, 0, 0, 0, 10, 0},
        {{"-d9"},                    9, 0, 0, 0, 10, 0},
        {{"-h"},                     1, 1, 0, 0, 10, 0},
        {{"-h30"},                   1, 1, 30, 0, 10, 0},
        {{"-k"},                     1, 1, 0, 1, 10, 0},
        {{"-k0"},                    1, 1, 0, 0, 10, 0},
        {{"-t"},                     1, 1, 0, 0, 10, 0},
        {{"-t20"},                   1, 1, 0, 0, 20, 0},
        {{"-t0"},                    1, 1, 0, 0, 0, 0},
        {{"-t-3"},                   1, 1, 0, 0, -3, 0},
        // a sign is not a digit: the letter counts as alone, so nothing
        // negative reaches the unsigned hold-off and pass count
        {{"-h-5"},                   1, 1, 0, 0, 10, 0},
        {{"-h30", "-h-5"},           1, 1, 30, 0, 10, 0},
        {{"-x-1"},                   1, 1, 0, 0, 10, 1},
        {{"-k-1"},                   1, 1, 0, 1, 10, 0},
        {{"-d-1"},                   4, 0, 0, 0, 10, 0},
        // only -t reads a sign, and only before a digit, to refuse the count
        {{"-t-"},                    1, 1, 0, 0, 10, 0},
        {{"-t+3"},                   1, 1, 0, 0, 10, 0},
        {{"-x"},                     1, 1, 0, 0, 10, 1},
        {{"-x5"},                    1, 1, 0, 0, 10, 5},
        // a number must be glued to its letter; the separate word is ignored
        {{"-t", "20"},               1, 1, 0, 0, 10, 0},
        // unknown letters and bare words are ignored
        {{"-z", "word", "-"},        1, 1, 0, 0, 10, 0},
        // later occurrences win
        {{"-t5", "-t7", "-d2", "-d"}, 4, 0, 0, 0, 7, 0},
        {{"-k", "-k0"},              1, 1, 0, 0, 10, 0},
        // the call time-out cap takes a number glued to it
        {{"-w5"},                    1, 1, 0, 0, 10, 0, 5},
        {{"-w"},                     1, 1, 0, 0, 10, 0, 0},
        {{"-w-5"},                   1, 1, 0, 0, 10, 0, 0},
    };
    for (const Case& c : cases) {
        std::vector<char*> argv{const_cast<char*>("vod")};
        std::string shown;
        for (const char* a : c.args) {
            argv.push_back(const_cast<char*>(a));
            shown += std::string(a) + " ";
        }
        VodOptions o;
        parseVodOptions(static_cast<int>(argv.size()), argv.data(), &o);
        SCOPED_TRACE(shown);
        EXPECT_EQ(o.tracePreset, c.preset);
        EXPECT_EQ(o.isDaemon, c.daemon);
        EXPECT_EQ(o.holdOffSec, c.holdOff);
        EXPECT_EQ(o.keepSrc, c.keep);
        EXPECT_EQ(o.numOfThreads, c.threads);
        EXPECT_EQ(o.callsToServe, c.calls);
        EXPECT_EQ(o.callTimeoutCap, c.timeoutCap);
    }
}

}  // namespace
