#include "voctl/trace_mask_arg.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TraceMaskArg, MasksNamesAndRefusals) {
    const struct {
        const char* text;
        bool ok;
        uint32_t mask;
        const char* why;  // part of the refusal
    } rows[] = {
        // a number is the mask word itself, 0xFFFFFFFF (open the private log) too
        {"0x0003F0E0", true, 0x0003F0E0, ""},
        {"4096", true, 0x1000, ""},
        {"0xFFFFFFFF", true, 0xFFFFFFFF, ""},
        // names: modules and levels together
        {"vod,vldb,audit,warn,fatal", true, 0x3000 | 0xE0, ""},
        {"RPC,debug", true, 0x20000 | 0x02, ""},
        // no module named: every module; no level named: audit, warn, fatal
        {"warn,fatal", true, 0xFFFFF000 | 0xC0, ""},
        {"incp", true, 0x10000 | 0xE0, ""},
        {"vosc,VOSC,vosk", true, 0xC000 | 0xE0, ""},
        // refusals name the word
        {"vod,warning", false, 0, "'warning'"},
        {"vod,,warn", false, 0, "empty"},
        {"", false, 0, "empty"},
        {"0x1FFFFFFFF", false, 0, "'0x1FFFFFFFF'"},
        {"-1", false, 0, "'-1'"},
    };
    for (const auto& r : rows) {
        std::string why;
        const auto mask = voctl::parseTraceMaskArg(r.text, &why);
        ASSERT_EQ(mask.has_value(), r.ok) << r.text;
        if (r.ok) {
            EXPECT_EQ(*mask, r.mask) << r.text;
        } else {
            EXPECT_NE(why.find(r.why), std::string::npos) << r.text << ": " << why;
        }
    }
}

}  // namespace
