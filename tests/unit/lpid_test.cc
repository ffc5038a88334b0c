#include <gtest/gtest.h>

#include "voctl/lpid.h"

namespace {

using voctl::formatLpId;
using voctl::LpId;
using voctl::parseLpId;

TEST(LpIdParse, ReadsBytesInTraceOrder) {
    auto id = parseLpId("0x00112233445566778899AABBCCDDEEFF");
    ASSERT_TRUE(id);
    for (int i = 0; i < 16; ++i) EXPECT_EQ((*id)[i], 0x11 * i) << "byte " << i;
}

TEST(LpIdParse, PrefixAndCaseAreOptional) {
    const LpId want = *parseLpId("0xDEADBEEF00000000000000000000CAFE");
    for (const char* text : {"DEADBEEF00000000000000000000CAFE", "deadbeef00000000000000000000cafe",
                             "0XDeadBeef00000000000000000000cafe"}) {
        auto id = parseLpId(text);
        ASSERT_TRUE(id) << text;
        EXPECT_EQ(*id, want) << text;
    }
}

TEST(LpIdParse, RejectsAnythingButThirtyTwoHexDigits) {
    for (const char* text : {
             "",                                      // empty
             "0x",                                    // prefix only
             "00112233445566778899AABBCCDDEEF",       // 31 digits
             "00112233445566778899AABBCCDDEEFF0",     // 33 digits
             "0x0x112233445566778899AABBCCDDEEFF",    // doubled prefix
             "00112233445566778899AABBCCDDEEFG",      // not hex
             " 00112233445566778899AABBCCDDEEFF",     // blank
             "00112233-4455-6677-8899-AABBCCDDEEFF",  // UUID dashes
             "LP=0x00112233445566778899AABBCCDDEEFF",
         }) {
        EXPECT_FALSE(parseLpId(text)) << '"' << text << '"';
    }
}

TEST(LpIdFormat, RoundTripsAndMarksLidZero) {
    LpId id{};
    EXPECT_EQ(formatLpId(id), "0x00000000000000000000000000000000");
    EXPECT_TRUE(voctl::isLidZero(id));
    id[15] = 0xA5;
    id[0] = 0x0F;
    EXPECT_FALSE(voctl::isLidZero(id));
    EXPECT_EQ(formatLpId(id), "0x0F0000000000000000000000000000A5");
    EXPECT_EQ(parseLpId(formatLpId(id)), id);
}

}  // namespace
