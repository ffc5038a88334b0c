#include "voerrors.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "message_catalogs/resource_bundle.h"
#include "vldb_lit.h"

namespace {

std::string notCataloged(unsigned code) {
    return "message not cataloged for code=" + std::to_string(code);
}

std::string orNull(const char* s) { return s != nullptr ? s : "<null>"; }

TEST(ErrorModule, RangeBoundaries) {
    const struct {
        unsigned code;
        const char* module;
    } cases[] = {
        {0, ""},         {1, "TarnFS"},    {19999, "TarnFS"}, {20000, "INCRCOPY"},
        {29999, "INCRCOPY"}, {30000, "SYSTEM"}, {30299, "SYSTEM"}, {30300, "RPC"},
        {30399, "RPC"},  {30400, "VLDB"},  {30599, "VLDB"},   {30600, "DLDB"},
        {34999, "DLDB"}, {35000, "VOD"},   {40599, "VOD"},    {40600, "HAMgr"},
        {65535, "HAMgr"},
    };
    for (const auto& c : cases) EXPECT_STREQ(error2module(c.code), c.module) << "code " << c.code;
}

TEST(ErrorModule, ProcedureNames) {
    const struct {
        unsigned proc;
        const char* name;
    } cases[] = {
        // The ends of the table and the gaps between its groups.
        {0, ""},          {1, "DbladeVolSetAttrs"},   {5, "DbladeVolShadow"},
        {6, "procUnknown"}, {138, "VicIncrCopyCancelOp"}, {139, "procUnknown"},
        {399, "HAMgrAdmin2ListAllIPs"}, {400, "procUnknown"}, {65535, "procUnknown"},
    };
    for (const auto& c : cases) EXPECT_STREQ(proc2string(c.proc), c.name) << "proc " << c.proc;
}

// Each range's first value, and the whole DLDB range, echo the code instead of
// looking anything up; the others go to their catalog or to strerror.
TEST(ErrorMessage, EachRangeFindsItsText) {
    const struct {
        unsigned code;
        std::string text;  // "<null>" for no message
    } cases[] = {
        {0, "<null>"},
        {0x10, "VFS not found"},
        {19999, "<null>"},
        {20000, notCataloged(20000)},
        {20002, "sink is already up-to-date"},
        {29999, "<null>"},
        {30000, notCataloged(30000)},
        {30002, strerror(2)},
        {30299, strerror(299)},
        {30300, notCataloged(30300)},
        {30301, "can not encode RPC arguments"},
        {30316, "RPC call failed"},
        {30317, "<null>"},
        {30400, notCataloged(30400)},
        {30501, "VFS name already exists"},
        {30599, "<null>"},
        {30600, notCataloged(30600)},
        {34999, notCataloged(34999)},
        {35000, notCataloged(35000)},
        {35001, "End stream error"},
        {37014, "Vod create record "},
        {40002, "out of memory"},
        {40030, "<null>"},  // 5030 has no text of its own
        {40599, "<null>"},
        {40600, "<null>"},
        {65535, "<null>"},
    };
    for (const auto& c : cases) {
        char buf[256] = "untouched";
        EXPECT_EQ(orNull(getMessage(c.code, buf, sizeof(buf))), c.text) << "code " << c.code;
    }
}

TEST(ErrorMessage, NotCatalogedTextIsCutToTheBuffer) {
    char buf[10];
    memset(buf, 'x', sizeof(buf));
    ASSERT_EQ(getMessage(30300, buf, sizeof(buf)), buf);
    EXPECT_STREQ(buf, "message n");

    // Without room for the text there is nothing to return, but no write either.
    EXPECT_EQ(getMessage(30300, nullptr, 256), nullptr);
    EXPECT_EQ(getMessage(30300, buf, 0), nullptr);
}

TEST(ErrorMessage, CatalogLookupRefusesMissingCatalogsAndKeys) {
    EXPECT_EQ(getMessageFromCatalog(0, "%u", 1), nullptr);
    EXPECT_EQ(getMessageFromCatalog(-1, "%u", 1), nullptr);
    EXPECT_EQ(getMessageFromCatalog(RB_SLOT_COUNT, "%u", 1), nullptr);
    EXPECT_EQ(getMessageFromCatalog(1000, "%u", 1), nullptr);
    EXPECT_EQ(getMessageFromCatalog(30, "%u", 1), nullptr);  // empty slot
    EXPECT_EQ(getMessageFromCatalog(RB_SLOT_RPC, "%u", 17), nullptr);
    // Keys match exactly: "1" is a key, "01" is not.
    EXPECT_STREQ(getMessageFromCatalog(RB_SLOT_RPC, "%u", 1), "can not encode RPC arguments");
    EXPECT_EQ(getMessageFromCatalog(RB_SLOT_RPC, "%02u", 1), nullptr);
    // The catch-all row has the empty key.
    EXPECT_STREQ(getMessageFromCatalog(RB_SLOT_VODCLIENT, "", 0), "{0}");
}

TEST(ErrorDecode, SplitsAndFormatsTheCode) {
    const struct {
        unsigned code;
        unsigned proc;
        unsigned low;
        std::string message;
    } cases[] = {
        {(385u << 16) | 5, 385, 5, "(TarnFS) VodVldbFindVfs: Invalid argument"},
        {(385u << 16) | 0x3F, 385, 0x3F, "(TarnFS) VodVldbFindVfs: (null)"},
        {40002, 0, 40002, "(VOD) : out of memory"},
        {30002, 0, 30002, std::string("(SYSTEM) : ") + strerror(2)},
        {30300, 0, 30300, "(RPC) : message not cataloged for code=30300"},
        {(6u << 16) | 40018, 6, 40018, "(VOD) procUnknown: Not supported"},
        {0, 0, 0, "() : (null)"},
        {0x01859C52, 389, 40018, "(VOD) VodVfsOpCancel: Not supported"},
        {0x01007737, 256, 30519, "(VLDB) VldbRecordLookup: record not found"},
        {0xFFFFFFFF, 65535, 65535, "(HAMgr) procUnknown: (null)"},
    };
    for (const auto& c : cases) {
        VoErrOut out;
        memset(&out, 0, sizeof(out));
        char* msg = errorDecode(c.code, &out);
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg, out.message);
        EXPECT_EQ(out.proc, c.proc) << std::hex << c.code;
        EXPECT_EQ(out.code, c.low) << std::hex << c.code;
        EXPECT_EQ(std::string(out.message), c.message) << std::hex << c.code;
        free(out.message);
    }
}

TEST(ErrorDecode, CompositeCodesOfTheAdministrationHandlers) {
    EXPECT_EQ(voCompositeCode(VoProcVodVfsOpCancel, VOD_ERR_BASE + VOD_ERR_NOT_SUPPORTED),
              0x01859C52u);
    EXPECT_EQ(voCompositeCode(VoProcVodRpcCreateClient, VOD_ERR_BASE + VOD_ERR_NO_VLDB_CLIENT),
              0x01809C43u);
    EXPECT_EQ(voCompositeCode(VoProcVodVfsDelete, VOD_ERR_BASE + VOD_ERR_VFS_DELETE), 0x01829E34u);
    EXPECT_EQ(voCompositeCode(VoProcVodCreateState, VOD_ERR_BASE + VOD_ERR_NO_MEMORY), 0x018D9C42u);
    EXPECT_EQ(voCompositeCode(VoProcSysSetSoLinger, VO_ERR_SYSTEM_BASE + 9), 0x00C77539u);
    // A low part wider than 16 bits must not leak into the procedure half.
    EXPECT_EQ(voCompositeCode(VoProcVodVfsDump, 0x12345), 0x01832345u);
}

TEST(ErrorDecode, VoErrStartsClearAndKeepsItsParts) {
    VoErr e;
    EXPECT_EQ(static_cast<unsigned>(e), 0u);
    EXPECT_EQ(e.func(), voErrFuncSuccess);
    EXPECT_EQ(e.funcrc(), 0u);

    e.setErr(voErrVldbRecordLookupRpc, 5);
    EXPECT_EQ(static_cast<unsigned>(e), 0u);  // the triple alone does not make it an error
    e.setErrorCode(voErrVldbRecordLookupRpc);
    EXPECT_EQ(static_cast<unsigned>(e), 10200u);
    e.setErrorCode(5031u);
    EXPECT_EQ(static_cast<unsigned>(e), 5031u);
    EXPECT_EQ(e.func(), voErrVldbRecordLookupRpc);
    EXPECT_EQ(e.funcrc(), 5u);
}

// Structural checks over every catalog: a row the lookup cannot reach, or a
// duplicate that shadows another, is a silent wrong message at run time. The
// row counts are those the catalogs are published with; vodClient and
// dbladeincrcopy end with the catch-all row (empty key, "{0}").
TEST(MessageCatalogs, TableAndRowsAreWellFormed) {
    const struct {
        int slot;
        const char* name;
        unsigned rows;
        const char* keyFormat;  // null: keys are not looked up
        bool catchAll;          // the last row is the catch-all
    } catalogs[] = {
        {RB_SLOT_DBLADEINCRCOPY, "dbladeincrcopy", 55, "%08u", true},
        {RB_SLOT_VOD, "vod", 9, nullptr, false},
        {RB_SLOT_TARNFSCLIENT, "tarnfsClient", 44, "0x%08x", false},
        {RB_SLOT_VLDBCLIENT, "vldbClient", 57, "%08u", false},
        {RB_SLOT_VODCLIENT, "vodClient", 124, "%08u", true},
        {RB_SLOT_RPC, "rpc", 16, "%u", false},
    };
    std::set<int> filled;
    for (const auto& c : catalogs) {
        SCOPED_TRACE(c.name);
        filled.insert(c.slot);
        const arrayResourceBundle* rb = resourceBundleTable[c.slot];
        ASSERT_NE(rb, nullptr);
        EXPECT_STREQ(rb->name_, c.name);
        ASSERT_EQ(rb->table_size_, c.rows);
        const resourceRow& last = rb->resource_table_[rb->table_size_ - 1];
        EXPECT_EQ(std::string(last[RB_KEY]).empty() && std::string(last[RB_MESSAGE]) == "{0}",
                  c.catchAll);

        std::set<std::string> keys;
        for (unsigned i = 0; i < rb->table_size_; ++i) {
            const resourceRow& row = rb->resource_table_[i];
            for (const char* cell : row) ASSERT_NE(cell, nullptr) << "row " << i;
            const std::string sev = row[RB_SEVERITY];
            EXPECT_TRUE(sev == "error" || sev == "warning" || sev == "notice" ||
                        sev == "informational")
                << sev;
            EXPECT_STREQ(row[RB_UNUSED], "") << "row " << i;
            EXPECT_STRNE(row[RB_MESSAGE], "") << "row " << i;
            if (c.keyFormat == nullptr) continue;

            const std::string key = row[RB_KEY];
            EXPECT_TRUE(keys.insert(key).second) << "duplicate key " << key;
            if (key.empty()) continue;  // the catch-all row
            // The key must be exactly what the lookup formats for its number.
            unsigned value = static_cast<unsigned>(
                strtoul(key.c_str(), nullptr, key.rfind("0x", 0) == 0 ? 16 : 10));
            char formatted[64];
            snprintf(formatted, sizeof(formatted), c.keyFormat, value);
            EXPECT_EQ(key, formatted);
        }
    }
    for (int slot = 0; slot < RB_SLOT_COUNT; ++slot) {
        if (filled.count(slot) == 0) {
            EXPECT_EQ(resourceBundleTable[slot], nullptr) << "slot " << slot;
        }
    }
}

TEST(VldbStatus, Literals) {
    const struct {
        int st;
        const char* name;
    } cases[] = {
        {0, "VLDB_SUCCESS"},           {101, "VLDB_NAME_EXISTS"},
        {156, "EXPORTDB_INVALID_NAME"}, {100, "unknown status code"},
        {157, "unknown status code"},  {-1, "unknown status code"},
    };
    for (const auto& c : cases) EXPECT_STREQ(statLit(c.st), c.name) << "status " << c.st;
}

}  // namespace
