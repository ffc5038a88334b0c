// Golden wire images of the records vod exchanges with the cluster.
//
// Both ends of every program share the .x files, so a round trip alone would
// not catch a field in the wrong place or an LP id shrunk to 16 opaque bytes.
// Each expected image below is written out by hand from the field lists, one
// field per line: 4-byte big-endian units, an LP id as 16 units, hypers high
// word first, strings as length, bytes and zero padding.

#include <gtest/gtest.h>
#include <rpc/rpc.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "coord.h"
#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "dldb_server.h"
#include "vldb_server.h"
#include "vo.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Builds an expected wire image one XDR item at a time.
class Wire {
public:
    Wire& u32(uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8) _b.push_back(uint8_t(v >> shift));
        return *this;
    }
    Wire& i32(int32_t v) { return u32(uint32_t(v)); }
    Wire& u64(uint64_t v) { return u32(uint32_t(v >> 32)).u32(uint32_t(v)); }
    // An LP id made by lid(first): 16 units holding first, first+1, ...
    Wire& lid(uint8_t first) {
        for (int i = 0; i < 16; i++) u32(uint8_t(first + i));
        return *this;
    }
    Wire& str(const std::string& s) { return u32(uint32_t(s.size())).fixed(s); }
    // Fixed opaque: the bytes, then zeros to the next unit.
    Wire& fixed(const std::string& s) {
        _b.insert(_b.end(), s.begin(), s.end());
        while (_b.size() % 4) _b.push_back(0);
        return *this;
    }
    const Bytes& bytes() const { return _b; }
    std::string hex() const;

private:
    Bytes _b;
};

// One 4-byte unit per word, eight to a line, so a mismatch shows as a diff.
std::string hexUnits(const Bytes& b) {
    std::string s;
    char unit[3];
    for (size_t i = 0; i < b.size(); i++) {
        snprintf(unit, sizeof unit, "%02x", b[i]);
        s += unit;
        if (i % 32 == 31)
            s += '\n';
        else if (i % 4 == 3)
            s += ' ';
    }
    return s;
}

std::string Wire::hex() const { return hexUnits(_b); }

template <typename T>
Bytes encode(bool_t (*filter)(XDR*, T*), T& obj) {
    std::vector<char> buf(8192);
    XDR x;
    xdrmem_create(&x, buf.data(), buf.size(), XDR_ENCODE);
    bool ok = filter(&x, &obj);
    Bytes out(buf.begin(), buf.begin() + (ok ? xdr_getpos(&x) : 0));
    xdr_destroy(&x);
    EXPECT_TRUE(ok) << "encoding failed";
    return out;
}

template <typename T>
std::string encodeHex(bool_t (*filter)(XDR*, T*), T& obj) {
    return hexUnits(encode(filter, obj));
}

// Decodes b into *obj (zeroed first); the caller frees it with xdr_free.
template <typename T>
bool decodeInto(bool_t (*filter)(XDR*, T*), const Bytes& b, T* obj) {
    memset(obj, 0, sizeof *obj);
    XDR x;
    xdrmem_create(&x, const_cast<char*>(reinterpret_cast<const char*>(b.data())), b.size(),
                  XDR_DECODE);
    bool ok = filter(&x, obj);
    xdr_destroy(&x);
    return ok;
}

// Whether b decodes; whatever was decoded is freed again.
template <typename T>
bool decodes(bool_t (*filter)(XDR*, T*), const Bytes& b) {
    T obj;
    bool ok = decodeInto(filter, b, &obj);
    xdr_free(reinterpret_cast<xdrproc_t>(filter), reinterpret_cast<char*>(&obj));
    return ok;
}

// Fills an LP id of any of the programs' LP-id types with first, first+1, ...
void setLid(void* dst, uint8_t first) {
    auto* p = static_cast<uint8_t*>(dst);
    for (int i = 0; i < 16; i++) p[i] = uint8_t(first + i);
}

char* cs(const char* s) { return const_cast<char*>(s); }

// ---- sample records, shared by the golden images and the decode tests ----

Rec sampleRec() {
    Rec r{};
    r.vfsid = 0x101;
    r.family = cs("fam");
    r.vfsname = cs("vol.12345");
    r.vserver = 0x202;
    r.vfstype = CLONE;
    r.crtime.sec = 0x303;
    r.crtime.usec = 0x304;
    setLid(r.lp_uuid, 0xA0);
    r.is_root = 1;
    r.dataVer = 0x0102030405060708ull;
    r.appId = APP_VOD;
    for (int i = 0; i < 8; i++) r.appData[i] = 11 + i;
    r.exportRuleset = 0xBEEF;
    return r;
}

vodb_create2_input sampleCreate2() {
    static vodbRec recs[2];
    recs[0] = vodbRec{};
    recs[0].opid = 0x1122334455667788ull;
    recs[0].optype = 3;  // move
    recs[0].vfsid = 77;
    setLid(recs[0].lp_uuid, 0xB0);
    recs[0].vfsrole = 2;  // sink
    recs[1] = recs[0];
    recs[1].vfsid = 78;
    setLid(recs[1].lp_uuid, 0xC0);
    recs[1].vfsrole = 4;  // op sink
    vodb_create2_input in{};
    in.new_create_opid = 0x0000000A0000000Bull;
    in.rec.rec_len = 2;
    in.rec.rec_val = recs;
    return in;
}

tarn_volgattrx_t sampleGattr() {
    tarn_volgattrx_t a{};
    a.flags = 0x11;
    a.minQuota = 0x100000001ull;
    a.maxQuota = 0x200000002ull;
    a.blocksUsed = 0x300000003ull;
    a.lpblocksAvailable = 0x400000004ull;
    a.lpminQuotaReserved = 0x500000005ull;
    a.volname = cs("src");
    a.mountedatvolname = cs("");
    a.mountedatdirvnode = 21;
    a.mountedatdirunique = 22;
    a.mountedatparentvnode = 23;
    a.mountedatparentunique = 24;
    a.createTime = 0x600000006ull;
    a.rootVnode = 31;
    a.rootUnique = 32;
    a.virtualServer = 33;
    a.read_ref_count = 34;
    a.dataVersion = 0x700000007ull;
    a.downstream_vfsid = 41;
    a.upstream_vfsid = 42;
    a.mgmId = 43;
    for (int i = 0; i < 24; i++) a.mgmExts[i] = char('a' + i);
    a.dmEnabledClasses = 44;
    a.percentFreeThreshold = 45;
    return a;
}

IncrCopyMirrorIn sampleMirrorIn() {
    static u_short blades[] = {3, 4};
    static u_int vfsIds[] = {500, 501};
    static lpUuid_t lps[2];
    setLid(lps[0], 0x50);
    setLid(lps[1], 0x60);
    IncrCopyMirrorIn in{};
    in.opId = 0x0000000100000002ull;
    in.opType = 2;
    in.srcVfsId = 16;
    setLid(in.srcLpUuid, 0x30);
    in.numDests = 2;
    in.dstBladeId = {2, blades};
    in.dstVfsId = {2, vfsIds};
    in.dstLpUuid = {2, lps};
    return in;
}

IncrCopyProgressOut sampleProgress() {
    static IncrCopyDestProgress dest;
    dest = IncrCopyDestProgress{};
    dest.isDone = 1;
    dest.completionCode = VIC_ESINKUPTODATE;
    dest.vfsId = 500;
    setLid(dest.uuid, 0x50);
    dest.blksSent = 0x300000004ull;
    IncrCopyProgressOut out{};
    out.rc = 0;
    IncrCopyPgrsOut& p = out.IncrCopyProgressOut_u.out;
    p.opId = 0x0000000100000002ull;
    p.srcVfsId = 16;
    setLid(p.srcLpUuid, 0x30);
    p.status = IncrCopyDone;
    p.completionCode = 0;
    p.vnodesTotal = 1000;
    p.vnodesProcessed = 999;
    p.blksRead = 0x100000002ull;
    p.numDests = 1;
    p.dstProgress = {1, &dest};
    return out;
}

TcpVfsDumpIn sampleDumpIn() {
    static TcpVfsDumpDest dest;
    dest = TcpVfsDumpDest{};
    dest.pid = -1;
    dest.sd = 7;
    dest.toVfsId = 900;
    setLid(dest.toLpId, 0x40);
    dest.dumpFromDV = 0x800000009ull;
    TcpVfsDumpIn in{};
    in.opId = 0x0000000300000004ull;
    in.opType = 6;
    in.fromVfsId = 16;
    setLid(in.fromLpId, 0x30);
    in.nodeName = cs("node1");
    in.dumpName = cs("nightly");
    in.dests = {1, &dest};
    return in;
}

LPGetAllOut sampleLpList() {
    static LPGetAllEntry entries[2];
    entries[0] = LPGetAllEntry{};
    setLid(entries[0].uuid, 0x70);
    entries[0].state = LP_STATUS_ONLINE;
    entries[0].name = cs("lp0");
    entries[1] = LPGetAllEntry{};
    setLid(entries[1].uuid, 0x80);
    entries[1].state = LP_STATUS_BUSY;
    entries[1].name = cs("data-lp");
    LPGetAllOut out{};
    out.status = 0;
    out.entries = {2, entries};
    return out;
}

DldbIterateRes sampleDldbTable() {
    static DldbRec recs[2];
    recs[0] = DldbRec{};
    recs[0].did = 1;
    recs[0].host.port = 0x1234;
    recs[0].host.name = cs("node-a");
    recs[1] = DldbRec{};
    recs[1].did = 33;
    recs[1].host.port = 0;
    recs[1].host.name = cs("node-b.lan");
    DldbIterateRes res{};
    res.status = DLDB_STATUS_NODE_UNHEALTHY;
    res.rec = {2, recs};
    return res;
}

VoMirrorPgrsOut sampleMirrorPgrs() {
    static VoSinkPgrs sinks[2];
    for (int i = 0; i < 2; i++) {
        sinks[i] = VoSinkPgrs{};
        sinks[i].isDone = i;
        sinks[i].completionCode = 20002 * i;
        sinks[i].vfsId = 0x40000010;
        setLid(sinks[i].uuid, uint8_t(0x50 + 0x10 * i));
        sinks[i].megsProcessed = 0x900000000ull + i;
    }
    VoMirrorPgrsOut out{};
    out.voOpid = 0x0000000500000006ull;
    out.rc = voErrRcSuccess;
    out.func = voErrFuncSuccess;
    out.funcrc = 0;
    out.src.vfsId = 16;
    setLid(out.src.uuid, 0x30);
    out.src.status = VoRunning;
    out.src.completionCode = 0;
    out.src.vnodesTotal = 10;
    out.src.vnodesProcessed = 4;
    out.src.megsProcessed = 0x123ull;
    out.numSinks = 2;
    out.sinks = {2, sinks};
    return out;
}

// ---- VLDB ----

TEST(VldbWire, RecKeepsItsOwnFieldOrder) {
    Rec r = sampleRec();
    Wire w;
    w.u32(0x101)                // vfsid
        .str("fam")             // family
        .str("vol.12345")       // vfsname
        .u32(0x202)             // vserver
        .u32(CLONE)             // vfstype
        .u32(0x303)             // crtime.sec
        .u32(0x304)             // crtime.usec
        .lid(0xA0)              // lp_uuid
        .u32(1)                 // is_root
        .u64(0x0102030405060708)  // dataVer
        .u32(APP_VOD);          // appId
    for (uint32_t i = 0; i < 8; i++) w.u32(11 + i);  // appData[8]
    w.u32(0xBEEF);              // exportRuleset, a u_short in a full unit
    EXPECT_EQ(encodeHex(xdr_Rec, r), w.hex());
}

TEST(VldbWire, CreateInputUsesTheCreateOrder) {
    // Assigned by name, not by position, so a field moved in the .x file shows in the image.
    Rec r = sampleRec();
    rec_create_input c{};
    c.vfsid = r.vfsid, c.family = r.family, c.vfsname = r.vfsname, c.vfstype = r.vfstype;
    c.is_root = r.is_root, c.crtime = r.crtime, c.vserver = r.vserver, c.dataVer = r.dataVer;
    c.appId = r.appId, c.exportRuleset = r.exportRuleset;
    memcpy(c.lp_uuid, r.lp_uuid, sizeof c.lp_uuid);
    memcpy(c.appData, r.appData, sizeof c.appData);
    Wire w;
    w.u32(0x101)                // vfsid
        .str("fam")             // family
        .str("vol.12345")       // vfsname
        .u32(CLONE)             // vfstype
        .u32(1)                 // is_root
        .u32(0x303)             // crtime.sec
        .u32(0x304)             // crtime.usec
        .lid(0xA0)              // lp_uuid
        .u32(0x202)             // vserver
        .u64(0x0102030405060708)  // dataVer
        .u32(APP_VOD);          // appId
    for (uint32_t i = 0; i < 8; i++) w.u32(11 + i);  // appData[8]
    w.u32(0xBEEF);              // exportRuleset
    EXPECT_EQ(encodeHex(xdr_rec_create_input, c), w.hex());
}

TEST(VldbWire, VodbCreate2CarriesRecordsAfterTheirCount) {
    vodb_create2_input in = sampleCreate2();
    Wire w;
    w.u64(0x0000000A0000000B)   // new_create_opid
        .u32(2)                 // rec count
        .u64(0x1122334455667788).i32(3).u32(77).lid(0xB0).i32(2)   // rec[0]
        .u64(0x1122334455667788).i32(3).u32(78).lid(0xC0).i32(4);  // rec[1]
    EXPECT_EQ(encodeHex(xdr_vodb_create2_input, in), w.hex());
}

TEST(VldbWire, SmallRecords) {
    vldb_lp_convert_result conv{0, 7};
    EXPECT_EQ(encodeHex(xdr_vldb_lp_convert_result, conv), Wire().u32(0).u32(7).hex());

    new_vfsid_result nv{0, 0x1234};
    EXPECT_EQ(encodeHex(xdr_new_vfsid_result, nv), Wire().u32(0).u32(0x1234).hex());

    vldb_vfs_move_input mv{};
    mv.vfsid = 9;
    setLid(mv.oldlp, 0x10);
    setLid(mv.newlp, 0x20);
    EXPECT_EQ(encodeHex(xdr_vldb_vfs_move_input, mv), Wire().u32(9).lid(0x10).lid(0x20).hex());

    vldb_modify_dataVer_input dv{};
    dv.vfsid = 9;
    setLid(dv.lp_uuid, 0x10);
    dv.dataVer = 0xFFFFFFFF00000001ull;
    EXPECT_EQ(encodeHex(xdr_vldb_modify_dataVer_input, dv),
              Wire().u32(9).lid(0x10).u64(0xFFFFFFFF00000001).hex());

    vodb_opid_lookup_result ol{135, 5, 6};
    EXPECT_EQ(encodeHex(xdr_vodb_opid_lookup_result, ol), Wire().i32(135).u64(5).u64(6).hex());
}

// ---- D-blade volume service ----

TEST(DbladeVolWire, SwapVolIdIn) {
    VolSwapVolIdIn in{};
    in.vfsID1 = 100;
    setLid(in.lpUUID1, 0x10);
    in.vfsID2 = 200;
    setLid(in.lpUUID2, 0x20);
    in.vfsIDTemp = 300;
    Wire w;
    w.u32(100)          // vfsID1
        .lid(0x10)      // lpUUID1
        .u32(200)       // vfsID2
        .lid(0x20)      // lpUUID2
        .u32(300);      // vfsIDTemp
    EXPECT_EQ(encodeHex(xdr_VolSwapVolIdIn, in), w.hex());
    EXPECT_EQ(encode(xdr_VolSwapVolIdIn, in).size(), 4 + 64 + 4 + 64 + 4u);
}

TEST(DbladeVolWire, GetAttrResult) {
    tarn_volgattrx_t a = sampleGattr();
    Wire w;
    w.u32(0x11)                 // flags
        .u64(0x100000001)       // minQuota
        .u64(0x200000002)       // maxQuota
        .u64(0x300000003)       // blocksUsed
        .u64(0x400000004)       // lpblocksAvailable
        .u64(0x500000005)       // lpminQuotaReserved
        .str("src")             // volname
        .str("")                // mountedatvolname: a length of 0 and nothing else
        .u32(21)                // mountedatdirvnode
        .u32(22)                // mountedatdirunique
        .u32(23)                // mountedatparentvnode
        .u32(24)                // mountedatparentunique
        .u64(0x600000006)       // createTime
        .u32(31)                // rootVnode
        .u32(32)                // rootUnique
        .u32(33)                // virtualServer
        .u32(34)                // read_ref_count
        .u64(0x700000007)       // dataVersion
        .u32(41)                // downstream_vfsid
        .u32(42)                // upstream_vfsid
        .u32(43)                // mgmId
        .fixed("abcdefghijklmnopqrstuvwx")  // mgmExts: 24 bytes, no length
        .u32(44)                // dmEnabledClasses
        .u32(45);               // percentFreeThreshold
    EXPECT_EQ(encodeHex(xdr_tarn_volgattrx_t, a), w.hex());

    VolGetattrOut_t out{};
    out.returnCode = 0;
    out.return_volattrs = a;
    Wire withCode;
    withCode.u32(0).fixed(std::string(w.bytes().begin(), w.bytes().end()));
    EXPECT_EQ(encodeHex(xdr_VolGetattrOut_t, out), withCode.hex());
}

TEST(DbladeVolWire, CreateInWithSettableAttributes) {
    VolCreateIn in{};
    setLid(in.lpUUID, 0x10);
    in.vfsID = 55;
    in.set_attrs.how = 0x3;
    tarn_volsattrx_t& s = in.set_attrs.attrs;
    s.minQuota = 1;
    s.maxQuota = 0x100000000ull;
    s.volname = cs("vol1@sink42");
    s.mountedatvolname = cs("root");
    s.mountedatdirvnode = 2;
    s.mountedatdirunique = 3;
    s.mountedatparentvnode = 4;
    s.mountedatparentunique = 5;
    s.createTime = 6;
    s.bkupLevel = 7;
    s.prevBkupTime = 8;
    s.prevVersion = 9;
    s.virtualServer = 10;
    s.mountedatVolumeId = 11;
    s.volumeId = 12;
    s.mgmId = 13;
    memset(s.mgmExts, 'z', sizeof s.mgmExts);
    s.dmOptions = 14;
    s.phase = 15;
    s.percentFreeThreshold = 16;
    Wire w;
    w.lid(0x10)                 // lpUUID
        .u32(55)                // vfsID
        .u32(0x3)               // set_attrs.how
        .u64(1)                 // minQuota
        .u64(0x100000000)       // maxQuota
        .str("vol1@sink42")     // volname
        .str("root")            // mountedatvolname
        .u32(2).u32(3).u32(4).u32(5)  // mountedat dir/parent vnode and unique
        .u64(6)                 // createTime
        .u32(7)                 // bkupLevel
        .u64(8)                 // prevBkupTime
        .u64(9)                 // prevVersion
        .u32(10)                // virtualServer
        .u32(11)                // mountedatVolumeId
        .u32(12)                // volumeId
        .u32(13)                // mgmId
        .fixed(std::string(24, 'z'))  // mgmExts
        .u32(14)                // dmOptions
        .u32(15)                // phase
        .u32(16);               // percentFreeThreshold
    EXPECT_EQ(encodeHex(xdr_VolCreateIn, in), w.hex());
}

TEST(DbladeVolWire, RequestsPutTheLpWhereTheirRecordSays) {
    VolDeleteIn del{};
    del.vfsID = 8;
    setLid(del.lpUUID, 0x10);
    EXPECT_EQ(encodeHex(xdr_VolDeleteIn, del), Wire().u32(8).lid(0x10).hex());

    VolCloneIn cl{};
    cl.srcVfsID = 8;
    cl.cloneVfsID = 9;
    cl.flags = 1;
    setLid(cl.lpUUID, 0x10);
    EXPECT_EQ(encodeHex(xdr_VolCloneIn, cl), Wire().u32(8).u32(9).u32(1).lid(0x10).hex());
}

// ---- D-blade incremental copy ----

TEST(IncrCopyWire, MirrorInWithTwoDestinations) {
    IncrCopyMirrorIn in = sampleMirrorIn();
    Wire w;
    w.u64(0x0000000100000002)   // opId
        .u32(2)                 // opType
        .u32(16)                // srcVfsId
        .lid(0x30)              // srcLpUuid
        .u32(2)                 // numDests
        .u32(2).u32(3).u32(4)   // dstBladeId<>: count, then u_shorts in full units
        .u32(2).u32(500).u32(501)       // dstVfsId<>
        .u32(2).lid(0x50).lid(0x60);    // dstLpUuid<>
    EXPECT_EQ(encodeHex(xdr_IncrCopyMirrorIn, in), w.hex());
}

TEST(IncrCopyWire, ProgressWhenTheStreamIsKnown) {
    IncrCopyProgressOut out = sampleProgress();
    Wire w;
    w.u32(0)                    // rc
        .u64(0x0000000100000002)  // opId
        .u32(16)                // srcVfsId
        .lid(0x30)              // srcLpUuid
        .u32(IncrCopyDone)      // status
        .u32(0)                 // completionCode
        .u32(1000)              // vnodesTotal
        .u32(999)               // vnodesProcessed
        .u64(0x100000002)       // blksRead
        .u32(1)                 // numDests
        .u32(1)                 // dstProgress count
        .u32(1).u32(VIC_ESINKUPTODATE).u32(500).lid(0x50).u64(0x300000004);  // dstProgress[0]
    EXPECT_EQ(encodeHex(xdr_IncrCopyProgressOut, out), w.hex());
}

TEST(IncrCopyWire, FailedProgressCarriesOnlyItsStatus) {
    IncrCopyProgressOut out = sampleProgress();  // body left filled: it must not be sent
    out.rc = VIC_EOPNOTFOUND;
    EXPECT_EQ(encodeHex(xdr_IncrCopyProgressOut, out), Wire().u32(20013).hex());

    IncrCopyProgressOut back;
    ASSERT_TRUE(decodeInto(xdr_IncrCopyProgressOut, Wire().u32(20013).bytes(), &back));
    EXPECT_EQ(back.rc, 20013u);
    xdr_free(reinterpret_cast<xdrproc_t>(xdr_IncrCopyProgressOut), reinterpret_cast<char*>(&back));
}

TEST(IncrCopyWire, MoveCancelDumpRestore) {
    IncrCopyMoveIn mv{};
    mv.opId = 0x0000000700000008ull;
    mv.opType = 4;
    mv.srcVfsId = 16;
    mv.tmpVfsIdForSwap = 17;
    setLid(mv.srcLpUuid, 0x30);
    mv.dstVfsId = 18;
    setLid(mv.dstLpUuid, 0x50);
    mv.dstBladeId = 3;
    EXPECT_EQ(encodeHex(xdr_IncrCopyMoveIn, mv),
              Wire().u64(0x0000000700000008).u32(4).u32(16).u32(17).lid(0x30).u32(18).lid(0x50)
                  .u32(3).hex());

    IncrCopyCancelIn cn{};
    cn.opId = 9;
    cn.dstVfsId = 18;
    setLid(cn.dstLpUuid, 0x50);
    EXPECT_EQ(encodeHex(xdr_IncrCopyCancelIn, cn), Wire().u64(9).u32(18).lid(0x50).hex());

    TcpVfsDumpIn dump = sampleDumpIn();
    Wire w;
    w.u64(0x0000000300000004)   // opId
        .u32(6)                 // opType
        .u32(16)                // fromVfsId
        .lid(0x30)              // fromLpId
        .str("node1")           // nodeName
        .str("nightly")         // dumpName
        .u32(1)                 // dests count
        .i32(-1).i32(7).u32(900).lid(0x40).u64(0x800000009);  // dests[0]
    EXPECT_EQ(encodeHex(xdr_TcpVfsDumpIn, dump), w.hex());

    TcpVfsRestoreIn rs{};
    rs.opId = 10;
    rs.pid = 11;
    rs.sd = 12;
    rs.force = 1;
    rs.toVfsId = 13;
    setLid(rs.toLpId, 0x40);
    EXPECT_EQ(encodeHex(xdr_TcpVfsRestoreIn, rs),
              Wire().u64(10).i32(11).i32(12).u32(1).u32(13).lid(0x40).hex());
}

// ---- D-blade LP management ----

TEST(LpmWire, ListAll) {
    LPGetAllOut out = sampleLpList();
    Wire w;
    w.i32(0)                    // status
        .u32(2)                 // entries count
        .lid(0x70).u32(LP_STATUS_ONLINE).str("lp0")       // entries[0]
        .lid(0x80).u32(LP_STATUS_BUSY).str("data-lp");    // entries[1]
    EXPECT_EQ(encodeHex(xdr_LPGetAllOut, out), w.hex());
}

TEST(LpmWire, AttributesWithOneExtent) {
    LPDiskExtent ext{3, 0x10, 0x200000000ull};
    LPGetAttrsOut out{};
    LPAttributes& a = out.attr;
    a.type = 1;
    a.name = cs("lp0");
    a.status = LP_STATUS_ONLINE;
    a.diskLayout = {1, &ext};
    setLid(a.uuid, 0x70);
    a.accessState = 2;
    a.primaryDBladeId = 3;
    a.secondaryDBladeId = 4;
    a.blockSize = 4096;
    a.groupSizeInBlocks = 64;
    a.sizeInBlocks = 0x100000000ull;
    a.spaceAvailableInBlocks = 0x80000000ull;
    a.unreservedSpaceAvailableInBlocks = 0x7F000000ull;
    Wire w;
    w.i32(0)                    // status
        .u32(1)                 // type
        .str("lp0")             // name
        .u32(LP_STATUS_ONLINE)  // status
        .u32(1).u32(3).u64(0x10).u64(0x200000000)  // diskLayout: count, extent
        .lid(0x70)              // uuid
        .u32(2)                 // accessState
        .u32(3)                 // primaryDBladeId
        .u32(4)                 // secondaryDBladeId
        .u32(4096)              // blockSize
        .u32(64)                // groupSizeInBlocks
        .u64(0x100000000)       // sizeInBlocks
        .u64(0x80000000)        // spaceAvailableInBlocks
        .u64(0x7F000000);       // unreservedSpaceAvailableInBlocks
    EXPECT_EQ(encodeHex(xdr_LPGetAttrsOut, out), w.hex());
}

// ---- DLDB ----

TEST(DldbWire, IterateResult) {
    DldbIterateRes res = sampleDldbTable();
    Wire w;
    w.u32(DLDB_STATUS_NODE_UNHEALTHY)  // status
        .u32(2)                        // rec count
        .u32(1).u32(0x1234).str("node-a")       // rec[0]: did, host.port, host.name
        .u32(33).u32(0).str("node-b.lan");      // rec[1]
    EXPECT_EQ(encodeHex(xdr_DldbIterateRes, res), w.hex());
}

TEST(DldbWire, LidAndVserverResults) {
    DldbGetLidRes lid{};
    lid.status = DLDB_STATUS_OK;
    setLid(lid.lid, 0x90);
    EXPECT_EQ(encodeHex(xdr_DldbGetLidRes, lid), Wire().u32(0).lid(0x90).hex());

    DldbGetVserverIdRes vs{DLDB_STATUS_NOT_FOUND, 0};
    EXPECT_EQ(encodeHex(xdr_DldbGetVserverIdRes, vs), Wire().u32(1).u32(0).hex());
}

// ---- coordinator ----

TEST(CoordWire, NodeAndAddresses) {
    admin_2_getnode_1_argument arg{5};
    EXPECT_EQ(encodeHex(xdr_admin_2_getnode_1_argument, arg), Wire().u32(5).hex());

    admin_attr_nodeInfo_t node{0, 5, cs("node-a")};
    EXPECT_EQ(encodeHex(xdr_admin_attr_nodeInfo_t, node),
              Wire().u32(0).u32(5).str("node-a").hex());

    u_int ips[] = {0x7F000001, 0xC0A80002};
    admin_list_ips_t list{};
    list.ips = {2, ips};
    EXPECT_EQ(encodeHex(xdr_admin_list_ips_t, list),
              Wire().u32(0).u32(2).u32(0x7F000001).u32(0xC0A80002).hex());
}

// ---- VOPROG, served by vod ----

TEST(VoWire, CopyRequest) {
    VoLidVnameIn in{};
    in.vidSrc = 42;
    setLid(in.lidSrc, 0xA0);
    setLid(in.lidSink, 0xB0);
    in.vnameSink = cs("copy1");
    EXPECT_EQ(encodeHex(xdr_VoLidVnameIn, in),
              Wire().u32(42).lid(0xA0).lid(0xB0).str("copy1").hex());
}

TEST(VoWire, CopyProgress) {
    VoCopyPgrsOut out{};
    out.voOpid = 0x0000000500000006ull;
    out.rc = voErrRollBackOp;
    out.func = voErrDbladeIncrCopyProgressRpc;
    out.funcrc = 5;
    out.src.vfsId = 16;
    setLid(out.src.uuid, 0x30);
    out.src.status = VoPaused;
    out.src.completionCode = 1;
    out.src.vnodesTotal = 10;
    out.src.vnodesProcessed = 4;
    out.src.megsProcessed = 0x100000123ull;
    out.sink.isDone = 0;
    out.sink.completionCode = 2;
    out.sink.vfsId = 17;
    setLid(out.sink.uuid, 0x50);
    out.sink.megsProcessed = 0x200000456ull;
    Wire w;
    w.u64(0x0000000500000006)   // voOpid
        .u32(3)                 // rc
        .u32(10505)             // func
        .u32(5)                 // funcrc
        .u32(16).lid(0x30).u32(VoPaused).u32(1).u32(10).u32(4).u64(0x100000123)  // src
        .u32(0).u32(2).u32(17).lid(0x50).u64(0x200000456);                       // sink
    EXPECT_EQ(encodeHex(xdr_VoCopyPgrsOut, out), w.hex());
}

TEST(VoWire, MirrorProgressWithTwoSinks) {
    VoMirrorPgrsOut out = sampleMirrorPgrs();
    Wire w;
    w.u64(0x0000000500000006).u32(0).u32(0).u32(0)                      // opid, rc, func, funcrc
        .u32(16).lid(0x30).u32(VoRunning).u32(0).u32(10).u32(4).u64(0x123)  // src
        .u32(2)                                                         // numSinks
        .u32(2)                                                         // sinks count
        .u32(0).u32(0).u32(0x40000010).lid(0x50).u64(0x900000000)        // sinks[0]
        .u32(1).u32(20002).u32(0x40000010).lid(0x60).u64(0x900000001);   // sinks[1]
    EXPECT_EQ(encodeHex(xdr_VoMirrorPgrsOut, out), w.hex());
}

TEST(VoWire, ErrorDecodeResult) {
    VoErrOut out{201, 0x01859C52, cs("no such operation")};
    EXPECT_EQ(encodeHex(xdr_VoErrOut, out),
              Wire().u32(201).u32(0x01859C52).str("no such operation").hex());
}

// ---- decoding what the wire may bring ----

TEST(WireDecode, BoundedNamesRejectOneByteTooMany) {
    // Volume names have their own bound. The administration names have the
    // largest request record's: none longer can arrive whole, and a length
    // word claiming more must not make the decoder allocate it.
    using Image = std::function<Wire(const std::string&)>;
    using Decode = std::function<bool(const Bytes&)>;
    auto decoder = [](auto filter) -> Decode {
        return [filter](const Bytes& b) { return decodes(filter, b); };
    };
    const struct {
        const char* what;
        size_t bound;
        Image image;
        Decode decode;
    } cases[] = {
        {"VoLidVnameIn", 128, [](auto& n) { return Wire().u32(42).lid(0xA0).lid(0xB0).str(n); },
         decoder(xdr_VoLidVnameIn)},
        {"VoVnameIn", 128, [](auto& n) { return Wire().u32(42).lid(0xA0).str(n); },
         decoder(xdr_VoVnameIn)},
        {"vo_string", VO_MAX_REQUEST, [](auto& n) { return Wire().str(n); },
         decoder(xdr_vo_string)},
        {"CreateVfsIn.vfsName", VO_MAX_REQUEST,
         [](auto& n) { return Wire().str(n).str("lp1a").str("vs1").u32(0); },
         decoder(xdr_CreateVfsIn)},
        {"CreateVfsIn.storagePoolName", VO_MAX_REQUEST,
         [](auto& n) { return Wire().str("v").str(n).str("vs1").u32(0); },
         decoder(xdr_CreateVfsIn)},
        {"CreateVfsIn.virtualServerName", VO_MAX_REQUEST,
         [](auto& n) { return Wire().str("v").str("lp1a").str(n).u32(0); },
         decoder(xdr_CreateVfsIn)},
    };
    for (const auto& c : cases) {
        for (size_t n : {size_t{0}, c.bound, c.bound + 1}) {
            EXPECT_EQ(n <= c.bound, c.decode(c.image(std::string(n, 'v')).bytes()))
                << c.what << " " << n;
        }
    }
}

TEST(WireDecode, OverlongVolumeNameFromADbladeFails) {
    tarn_volgattrx_t a = sampleGattr();
    Bytes good = encode(xdr_tarn_volgattrx_t, a);
    // Same image with volname "src" swapped for 129 bytes.
    Bytes prefix(good.begin(), good.begin() + 4 + 5 * 8);
    Bytes rest(good.begin() + 4 + 5 * 8 + 8, good.end());
    Wire name;
    name.str(std::string(129, 'v'));
    Bytes bad = prefix;
    bad.insert(bad.end(), name.bytes().begin(), name.bytes().end());
    bad.insert(bad.end(), rest.begin(), rest.end());
    EXPECT_TRUE(decodes(xdr_tarn_volgattrx_t, good));
    EXPECT_FALSE(decodes(xdr_tarn_volgattrx_t, bad));
}

struct TruncCase {
    const char* what;
    Bytes full;
    std::function<bool(const Bytes&)> decode;
};

template <typename T>
TruncCase truncCase(const char* what, bool_t (*filter)(XDR*, T*), T obj) {
    return {what, encode(filter, obj), [filter](const Bytes& b) { return decodes(filter, b); }};
}

TEST(WireDecode, EveryTruncationFails) {
    const TruncCase cases[] = {
        truncCase("Rec", xdr_Rec, sampleRec()),
        truncCase("vodb_create2_input", xdr_vodb_create2_input, sampleCreate2()),
        truncCase("IncrCopyMirrorIn", xdr_IncrCopyMirrorIn, sampleMirrorIn()),
        truncCase("IncrCopyProgressOut", xdr_IncrCopyProgressOut, sampleProgress()),
        truncCase("TcpVfsDumpIn", xdr_TcpVfsDumpIn, sampleDumpIn()),
        truncCase("LPGetAllOut", xdr_LPGetAllOut, sampleLpList()),
        truncCase("DldbIterateRes", xdr_DldbIterateRes, sampleDldbTable()),
        truncCase("VoMirrorPgrsOut", xdr_VoMirrorPgrsOut, sampleMirrorPgrs()),
    };
    for (const TruncCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_FALSE(c.full.empty());
        EXPECT_TRUE(c.decode(c.full));
        for (size_t len = 0; len < c.full.size(); len += 4) {
            Bytes cut(c.full.begin(), c.full.begin() + len);
            EXPECT_FALSE(c.decode(cut)) << "decoded from the first " << len << " bytes";
        }
    }
}

TEST(WireDecode, SixteenRawBytesAreNoLpId) {
    // A peer that packs an LP id into 16 opaque bytes sends 20 bytes for VoIn.
    Bytes raw = Wire().u32(42).fixed("0123456789abcdef").bytes();
    EXPECT_FALSE(decodes(xdr_VoIn, raw));
    EXPECT_TRUE(decodes(xdr_VoIn, Wire().u32(42).lid(0xA0).bytes()));
}

}  // namespace
