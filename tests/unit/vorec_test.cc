#include "vorec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

VoRec rec(unsigned vid, int role, int type, unsigned long long opid) {
    VoRec r;
    r.setVid(vid);
    r.setRole(static_cast<VoRec::VfsRole>(role));
    r.setOpType(static_cast<VoRec::VoType>(type));
    r.setOpid(opid);
    return r;
}

TEST(VoRecTest, NamesForTracesIncludingValuesBeyondTheTable) {
    EXPECT_STREQ("vfsrestore", VoRec::opType2str(7));
    EXPECT_STREQ("temp", VoRec::role2str(5));
    EXPECT_STREQ("opType8", VoRec::opType2str(8));
    EXPECT_STREQ("role6", VoRec::role2str(6));
}

TEST(VoRecTest, GenVname) {
    struct Case {
        unsigned vid;
        int role, type;
        unsigned long long opid;
        const char* base;
        const char* want;
    } cases[] = {
        {42, VoRec::VODB_ROLE_SINK, VoRec::VODB_VOLOP_COPY, 9, "vol1", "vol1@sink42"},
        {42, VoRec::VODB_ROLE_OPSINK, VoRec::VODB_VOLOP_MOVE, 7, nullptr, "vfs42opsinkOfmove7"},
        {42, VoRec::VODB_ROLE_OPSINK, VoRec::VODB_VOLOP_MOVE, 7, "", "vfs42opsinkOfmove7"},
        {5, 9, 12, 3, nullptr, "vfs5role9OfopType123"},
    };
    for (const Case& c : cases) {
        VoRec r = rec(c.vid, c.role, c.type, c.opid);
        r.genVname(c.base);
        EXPECT_STREQ(c.want, r.getVname());
    }
}

TEST(VoRecTest, NamesNeverExceed128Characters) {
    std::string longName(200, 'x');
    VoRec r = rec(42, VoRec::VODB_ROLE_SINK, VoRec::VODB_VOLOP_COPY, 1);
    r.genVname(longName.c_str());
    EXPECT_EQ(128u, std::strlen(r.getVname()));

    r.setVname(longName.c_str());
    EXPECT_EQ(std::string(128, 'x'), r.getVname());
    r.setVname(nullptr);
    EXPECT_STREQ("", r.getVname());
}

}  // namespace
