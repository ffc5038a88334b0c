// The simulated D-blade's pure rules: what an incremental send carries, the content
// checksum, which paths a volume accepts, block counts.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/dblade_sync.h"

namespace {

std::string describe(const std::vector<SimChange>& changes) {
    std::string out;
    for (const SimChange& c : changes)
        out += (c.remove ? "-" : "+") + c.path + "@" + std::to_string(c.version) + " ";
    return out;
}

TEST(DbladeSync, ASinkGetsEveryPathChangedAfterItsVersionAndNothingElse) {
    std::map<std::string, SimFileMeta> files = {
        {"a", {3, 10, false}},
        {"b/c", {7, 0, true}},   // removed at version 7
        {"b/d", {1, 5, false}},
        {"z", {9, 20, false}},
    };
    struct Row {
        uint64_t since;
        const char* expect;
    };
    const Row rows[] = {
        {0, "+a@3 -b/c@7 +b/d@1 +z@9 "},   // a new sink gets everything, in path order
        {1, "+a@3 -b/c@7 +z@9 "},
        {3, "-b/c@7 +z@9 "},               // a change at exactly the sink's version is had
        {8, "+z@9 "},
        {9, ""},
        {100, ""},
    };
    for (const Row& r : rows) EXPECT_EQ(describe(simChangesSince(files, r.since)), r.expect) << r.since;
    // Sizes travel with writes; removals carry none.
    std::vector<SimChange> all = simChangesSince(files, 0);
    EXPECT_EQ(all[0].size, 10u);
    EXPECT_EQ(all[1].size, 0u);
}

std::string sumOf(const std::vector<std::pair<std::string, std::string>>& files) {
    SimChecksum s;
    for (const auto& [path, bytes] : files) {
        s.beginFile(path, bytes.size());
        s.add(bytes.data(), bytes.size());
    }
    return s.hex();
}

TEST(DbladeSync, TheChecksumSeesNamesContentsAndWhereFilesEnd) {
    const std::string base = sumOf({{"a", "xy"}, {"b", "z"}});
    EXPECT_EQ(base.size(), 16u);
    EXPECT_EQ(sumOf({{"a", "xy"}, {"b", "z"}}), base);
    EXPECT_NE(sumOf({{"a", "x"}, {"b", "yz"}}), base);   // bytes moved across a boundary
    EXPECT_NE(sumOf({{"a", "xy"}, {"c", "z"}}), base);   // a renamed file
    EXPECT_NE(sumOf({{"a", "xz"}, {"b", "z"}}), base);   // a changed byte
    EXPECT_NE(sumOf({{"a", "xy"}}), base);               // a missing file
    EXPECT_NE(sumOf({{"a", "xy"}, {"b", ""}}), sumOf({{"a", "xy"}}));   // an empty file counts
}

TEST(DbladeSync, PathsStayInsideTheVolume) {
    struct Row {
        const char* path;
        bool ok;
    };
    const Row rows[] = {
        {"a", true},          {"dir/sub/file.txt", true}, {"with space", true},
        {"", false},          {"/abs", false},            {"trailing/", false},
        {"a//b", false},      {"..", false},              {"a/../b", false},
        {"./a", false},       {"tab\there", false},       {"new\nline", false},
        {".simtmp-1", false}, {"d/.simtmp-x", false},     {".simtmpish", false},
        {".hidden", true},
    };
    for (const Row& r : rows) EXPECT_EQ(simValidVolPath(r.path), r.ok) << "'" << r.path << "'";
    EXPECT_TRUE(simValidVolPath(std::string(1024, 'x')));
    EXPECT_FALSE(simValidVolPath(std::string(1025, 'x')));
}

TEST(DbladeSync, BlocksRoundUp) {
    EXPECT_EQ(simBlocks(0, 4096), 0u);
    EXPECT_EQ(simBlocks(1, 4096), 1u);
    EXPECT_EQ(simBlocks(4096, 4096), 1u);
    EXPECT_EQ(simBlocks(4097, 4096), 2u);
    EXPECT_EQ(simBlocks(10, 0), 0u);
}

}  // namespace
