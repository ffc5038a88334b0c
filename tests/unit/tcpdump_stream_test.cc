// The dump stream's reader and writer: what the writer makes passes every check, read whole
// or record by record; a stream damaged anywhere, cut short, out of order or made of garbage
// is refused with its error at the record where it goes wrong, and never read past its end.

#include "util/tcpdump_stream.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Records = std::vector<Bytes>;

constexpr uint64_t kFrom = 2, kTo = 9;
constexpr size_t kBegin = 0, kMeta = 1, kEmpty = 2, kPiece1 = 3, kPiece2 = 4, kPiece3 = 5,
                 kRemoval = 6, kEnd = 7, kClose = 8;

TcpDumpInfo info() {
    TcpDumpInfo i;
    i.seconds = 1700000000;
    i.fromDV = kFrom;
    i.toDV = kTo;
    i.volName = "alpha";
    i.nodeName = "node1";
    i.dumpName = "weekly";
    return i;
}

TcpDumpMeta meta() {
    TcpDumpMeta m;
    m.volType = 1;
    m.files = 2;
    m.removals = 1;
    m.fileBytes = 250;
    return m;
}

Bytes fileBytes() {
    Bytes b(250);
    for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<unsigned char>(i * 7);
    return b;
}

// A writer whose records land one to an element (the writer sends once per record).
struct Capture {
    Records recs;
    TcpDumpWriter writer{[this](const unsigned char* p, size_t n) {
        recs.emplace_back(p, p + n);
        return 0;
    }};
};

// Begin, Meta, an empty file, a file of 250 bytes in pieces of 100, 100 and 50, a removal,
// End, Close: the indexes above.
Records good(const TcpDumpInfo& i = info(), const TcpDumpMeta& m = meta()) {
    Capture c;
    TcpDumpWriter& w = c.writer;
    Bytes f = fileBytes();
    EXPECT_EQ(w.begin(i), 0);
    EXPECT_EQ(w.meta(m), 0);
    EXPECT_EQ(w.filePiece("a/empty", 3, 0, 0, nullptr, 0), 0);
    EXPECT_EQ(w.filePiece("b/file", 5, 250, 0, f.data(), 100), 0);
    EXPECT_EQ(w.filePiece("b/file", 5, 250, 100, f.data() + 100, 100), 0);
    EXPECT_EQ(w.filePiece("b/file", 5, 250, 200, f.data() + 200, 50), 0);
    EXPECT_EQ(w.removal("c/gone", 9), 0);
    EXPECT_EQ(w.end(), 0);
    EXPECT_EQ(w.close(0), 0);
    return c.recs;
}

Bytes join(const Records& r) {
    Bytes out;
    for (const Bytes& b : r) out.insert(out.end(), b.begin(), b.end());
    return out;
}

uint64_t offsetOf(const Records& r, size_t index) {
    uint64_t off = 0;
    for (size_t i = 0; i < index && i < r.size(); ++i) off += r[i].size();
    return off;
}

Bytes frame(uint16_t type, const Bytes& body) {
    return tcpDumpFrame(type, body.data(), body.size());
}

Bytes u32(uint32_t v) {
    uint32_t n = htonl(v);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(&n);
    return Bytes(p, p + 4);
}

Bytes u64(uint64_t v) {
    Bytes b = u32(static_cast<uint32_t>(v >> 32)), lo = u32(static_cast<uint32_t>(v));
    b.insert(b.end(), lo.begin(), lo.end());
    return b;
}

Bytes dataRec(uint16_t kind, const std::string& path, uint64_t version, uint64_t size,
              uint64_t offset, const Bytes& data) {
    return frame(TCP_REC_DATA, tcpDumpDataBody(kind, path, version, size, offset, data.data(),
                                               static_cast<uint32_t>(data.size())));
}

// A Begin body put in place with the Meta that matches it, so that only the Begin's own
// checks can fail.
void setBegin(Records& r, const Bytes& body) {
    r[kBegin] = frame(TCP_REC_BEGIN, body);
    Bytes d = tcpDumpMetaData(tcpDumpCrc32(0, body.data(), body.size()), meta());
    r[kMeta] = dataRec(TCP_DATA_META, "", 0, 0, 0, d);
}

// Sets a header field and makes its checksum right again.
void setReserved(Bytes& rec, uint16_t reserved) {
    TcpDumpHdr h;
    memcpy(&h, rec.data(), sizeof h);
    h.reserved = reserved;
    h.csum = 0;
    h.csum = computeChecksum(reinterpret_cast<unsigned short*>(&h));
    memcpy(rec.data(), &h, sizeof h);
}

// Reads the stream record by record the way a socket is read, in reads of the sizes asked.
TcpDumpStatus readIncrementally(const Bytes& stream, TcpDumpSummary* sum) {
    size_t pos = 0;
    TcpDumpRecv recv = [&](unsigned char* p, unsigned n) {
        if (stream.size() - pos < n) return ECONNRESET;
        memcpy(p, stream.data() + pos, n);
        pos += n;
        return 0;
    };
    TcpDumpReader reader;
    std::vector<unsigned char> buf;
    TcpDumpStatus st;
    while (st.ok() && !reader.complete()) {
        TcpDumpRecord rec;
        st = tcpDumpReadRecord(reader, recv, &buf, &rec);
    }
    *sum = reader.summary();
    return st;
}

// The parse of a heap copy of exactly the stream's size, so that a read past its end is
// caught by the sanitizer.
TcpDumpStatus parse(const Bytes& stream, TcpDumpSummary* sum = nullptr) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[stream.size() ? stream.size() : 1]);
    if (!stream.empty()) memcpy(copy.get(), stream.data(), stream.size());
    return tcpDumpParse(copy.get(), stream.size(), sum);
}

TEST(TcpDumpStream, WhatTheWriterMakesPassesEveryCheckAndReadsBack) {
    Records r = good();
    ASSERT_EQ(r.size(), 9u);
    Bytes stream = join(r);
    TcpDumpSummary sum;
    std::vector<TcpDumpRecord> seen;
    Bytes file;
    TcpDumpStatus st =
        tcpDumpParse(stream.data(), stream.size(), &sum, [&](const TcpDumpRecord& rec) {
            seen.push_back(rec);
            if (rec.kind == TCP_DATA_FILE && rec.path == "b/file") {
                EXPECT_EQ(rec.pieceOffset, file.size());
                file.insert(file.end(), rec.data, rec.data + rec.dataLength);
            }
            return true;
        });
    ASSERT_TRUE(st.ok()) << st.text();
    EXPECT_EQ(file, fileBytes());
    ASSERT_EQ(seen.size(), 9u);
    EXPECT_EQ(seen[kRemoval].path, "c/gone");
    EXPECT_EQ(seen[kRemoval].version, 9u);
    EXPECT_EQ(seen[kEnd].offset, offsetOf(r, kEnd));

    EXPECT_EQ(sum.info.label(), "weekly:2:9");
    EXPECT_EQ(sum.info.volName, "alpha");
    EXPECT_EQ(sum.info.nodeName, "node1");
    EXPECT_EQ(sum.info.seconds, 1700000000u);
    EXPECT_FALSE(sum.info.full());
    EXPECT_EQ(sum.meta.volType, 1u);
    EXPECT_EQ(sum.records, 9u);
    EXPECT_EQ(sum.dataRecords, 6u);
    EXPECT_EQ(sum.files, 2u);
    EXPECT_EQ(sum.removals, 1u);
    EXPECT_EQ(sum.fileBytes, 250u);
    EXPECT_EQ(sum.bytes, stream.size());

    TcpDumpSummary inc;
    EXPECT_TRUE(readIncrementally(stream, &inc).ok());
    EXPECT_EQ(inc.records, sum.records);
}

struct BadCase {
    const char* name;
    std::function<void(Records&)> damage;
    TcpDumpError error;
    int atRecord;  // the record whose offset the failure names (in the damaged stream); -1: any
};

void PrintTo(const BadCase& c, std::ostream* os) { *os << c.name; }

const BadCase kBad[] = {
    {"nothing", [](Records& r) { r.clear(); }, TcpDumpError::Truncated, 0},
    {"cut in a header",
     [](Records& r) {
         r.resize(3);
         r[2].resize(5);
     },
     TcpDumpError::Truncated, 2},
    {"cut in a body",
     [](Records& r) {
         r.resize(4);
         r[3].resize(60);
     },
     TcpDumpError::Truncated, -1},
    {"no Close", [](Records& r) { r.pop_back(); }, TcpDumpError::Truncated, kClose},
    {"magic", [](Records& r) { r[kPiece1][5] ^= 1; }, TcpDumpError::BadMagic, kPiece1},
    {"header checksum", [](Records& r) { r[kEnd][11] ^= 0x40; }, TcpDumpError::BadHeaderChecksum,
     kEnd},
    {"header length", [](Records& r) { r[kEnd][3] ^= 1; }, TcpDumpError::BadHeaderChecksum, kEnd},
    {"reserved bits", [](Records& r) { setReserved(r[kMeta], 1); }, TcpDumpError::BadHeader, kMeta},
    {"unknown type", [](Records& r) { r[kEnd] = frame(9, u64(6)); }, TcpDumpError::UnknownType,
     kEnd},
    {"Begin too short", [](Records& r) { r[kBegin] = frame(TCP_REC_BEGIN, Bytes(811, 0)); },
     TcpDumpError::BadLength, kBegin},
    {"End of 12 bytes",
     [](Records& r) {
         Bytes b = u64(6);
         b.resize(12);
         r[kEnd] = frame(TCP_REC_END, b);
     },
     TcpDumpError::BadLength, kEnd},
    {"a byte of the Begin body", [](Records& r) { r[kBegin][12 + 600] ^= 1; },
     TcpDumpError::BadMetaCrc, kMeta},
    {"protocol version 2",
     [](Records& r) {
         TcpDumpInfo i = info();
         i.protocolVersion = 2;
         setBegin(r, tcpDumpBeginBody(i));
     },
     TcpDumpError::BadVersion, kBegin},
    {"from above to",
     [](Records& r) {
         TcpDumpInfo i = info();
         i.fromDV = kTo + 1;
         setBegin(r, tcpDumpBeginBody(i));
     },
     TcpDumpError::BadBegin, kBegin},
    {"name longer than 256",
     [](Records& r) {
         Bytes b = tcpDumpBeginBody(info());
         Bytes len = u32(257);
         std::copy(len.begin(), len.end(), b.begin() + 32);
         setBegin(r, b);
     },
     TcpDumpError::BadBegin, kBegin},
    {"no Meta", [](Records& r) { r.erase(r.begin() + kMeta); }, TcpDumpError::OutOfOrder, kMeta},
    {"a second Meta", [](Records& r) { r.insert(r.begin() + kEmpty, r[kMeta]); },
     TcpDumpError::OutOfOrder, kEmpty},
    {"data before Begin", [](Records& r) { std::swap(r[kBegin], r[kMeta]); },
     TcpDumpError::OutOfOrder, kBegin},
    {"a second Begin", [](Records& r) { r.insert(r.begin() + kMeta, r[kBegin]); },
     TcpDumpError::OutOfOrder, kMeta},
    {"Meta of the wrong shape",
     [](Records& r) { r[kMeta] = dataRec(TCP_DATA_META, "", 0, 0, 0, Bytes(40, 0)); },
     TcpDumpError::BadMeta, kMeta},
    {"a byte of a data body", [](Records& r) { r[kPiece2][12 + 36 + 6 + 50] ^= 1; },
     TcpDumpError::BadDataCrc, kPiece2},
    {"a byte of a data CRC", [](Records& r) { r[kRemoval][12 + 33] ^= 1; },
     TcpDumpError::BadDataCrc, kRemoval},
    {"a byte of the Meta data", [](Records& r) { r[kMeta][12 + 36 + 30] ^= 1; },
     TcpDumpError::BadDataCrc, kMeta},
    {"pieces swapped", [](Records& r) { std::swap(r[kPiece1], r[kPiece2]); }, TcpDumpError::BadData,
     kPiece1},
    {"a piece missing", [](Records& r) { r.erase(r.begin() + kPiece2); }, TcpDumpError::BadData,
     kPiece2},
    {"the last piece missing", [](Records& r) { r.erase(r.begin() + kPiece3); },
     TcpDumpError::BadData, kPiece3},
    {"a piece past the end of its file",
     [](Records& r) { r[kPiece3] = dataRec(TCP_DATA_FILE, "b/file", 5, 250, 200, Bytes(51, 0)); },
     TcpDumpError::BadData, kPiece3},
    {"a version beyond the dump",
     [](Records& r) { r[kEmpty] = dataRec(TCP_DATA_FILE, "a/empty", kTo + 1, 0, 0, {}); },
     TcpDumpError::BadData, kEmpty},
    {"a version the base already has",
     [](Records& r) { r[kEmpty] = dataRec(TCP_DATA_FILE, "a/empty", kFrom, 0, 0, {}); },
     TcpDumpError::BadData, kEmpty},
    {"a path with a NUL",
     [](Records& r) { r[kEmpty] = dataRec(TCP_DATA_FILE, std::string("a\0b", 3), 3, 0, 0, {}); },
     TcpDumpError::BadData, kEmpty},
    {"a removal with data",
     [](Records& r) { r[kRemoval] = dataRec(TCP_DATA_REMOVE, "c/gone", 9, 0, 0, Bytes(1, 0)); },
     TcpDumpError::BadData, kRemoval},
    {"an unknown kind", [](Records& r) { r[kRemoval] = dataRec(7, "c/gone", 9, 0, 0, {}); },
     TcpDumpError::BadData, kRemoval},
    {"End counts one more", [](Records& r) { r[kEnd] = frame(TCP_REC_END, u64(7)); },
     TcpDumpError::BadCount, kEnd},
    {"Meta announces another file",
     [](Records& r) {
         TcpDumpMeta m = meta();
         m.files = 3;
         r = good(info(), m);
     },
     TcpDumpError::BadTotals, kEnd},
    {"End before Meta", [](Records& r) { r.erase(r.begin() + kMeta, r.begin() + kEnd); },
     TcpDumpError::OutOfOrder, kMeta},
    {"Close before End", [](Records& r) { r.erase(r.begin() + kEnd); }, TcpDumpError::OutOfOrder,
     kEnd},
    {"Close with a code", [](Records& r) { r[kClose] = frame(TCP_REC_CLOSE, u32(20036)); },
     TcpDumpError::StreamFailed, kClose},
    {"a writer that stopped part way",
     [](Records& r) {
         r.resize(kPiece2);
         r.push_back(frame(TCP_REC_CLOSE, u32(20025)));
     },
     TcpDumpError::StreamFailed, kPiece2},
    {"Rejected instead of Begin",
     [](Records& r) { r = {frame(TCP_REC_REJECTED, u32(0x01889C54))}; }, TcpDumpError::Rejected, 0},
    {"a byte after Close", [](Records& r) { r.push_back({0}); }, TcpDumpError::TrailingBytes, 9},
    {"a record after Close", [](Records& r) { r.push_back(r[kClose]); },
     TcpDumpError::TrailingBytes, 9},
};

class TcpDumpBadStream : public ::testing::TestWithParam<BadCase> {};

TEST_P(TcpDumpBadStream, IsRefusedAtTheRecordThatGoesWrong) {
    const BadCase& c = GetParam();
    Records r = good();
    c.damage(r);
    Bytes stream = join(r);
    TcpDumpSummary sum;
    TcpDumpStatus st = parse(stream, &sum);
    EXPECT_EQ(tcpDumpErrorName(st.error), std::string(tcpDumpErrorName(c.error))) << st.text();
    if (c.atRecord >= 0) {
        EXPECT_EQ(st.offset, offsetOf(r, static_cast<size_t>(c.atRecord)));
    }
    EXPECT_FALSE(sum.closed && st.ok());
    EXPECT_NE(st.text().find("offset"), std::string::npos) << st.text();
    if (c.error == TcpDumpError::StreamFailed || c.error == TcpDumpError::Rejected) {
        EXPECT_NE(st.detail, 0u);
    }

    // Read as from a socket, the same stream fails the same way (bytes after the Close are
    // never read there: the reader stops at the Close).
    if (c.error != TcpDumpError::TrailingBytes) {
        TcpDumpSummary inc;
        TcpDumpStatus ist = readIncrementally(stream, &inc);
        EXPECT_EQ(ist.error, st.error);
        EXPECT_EQ(ist.offset, st.offset);
    }
}

INSTANTIATE_TEST_SUITE_P(Damage, TcpDumpBadStream, ::testing::ValuesIn(kBad),
                         [](const ::testing::TestParamInfo<BadCase>& p) {
                             std::string n;
                             for (const char* s = p.param.name; *s; ++s)
                                 n += isalnum(static_cast<unsigned char>(*s)) ? *s : '_';
                             return n;
                         });

// Every byte of a stream is under some check: no single flipped bit passes.
TEST(TcpDumpStream, EveryFlippedBitIsRefused) {
    Bytes stream = join(good());
    for (size_t i = 0; i < stream.size(); ++i) {
        for (int bit = 0; bit < 8; ++bit) {
            Bytes damaged = stream;
            damaged[i] ^= static_cast<unsigned char>(1 << bit);
            TcpDumpStatus st = parse(damaged);
            ASSERT_FALSE(st.ok()) << "byte " << i << " bit " << bit;
        }
    }
}

// Garbage, and garbage after a good start, never passes and never makes the parser read past
// the buffer (the copy is exactly as long as the bytes; the sanitizer build would see it).
TEST(TcpDumpStream, GarbageIsRefusedWithoutReadingPastTheBuffer) {
    std::mt19937 rng(12345);
    Records r = good();
    Bytes start = join(Records(r.begin(), r.begin() + kEmpty));
    for (int round = 0; round < 2000; ++round) {
        Bytes g = round % 2 ? start : Bytes();
        size_t n = rng() % 300;
        for (size_t i = 0; i < n; ++i) g.push_back(static_cast<unsigned char>(rng()));
        // Now and then a header that passes, so that bodies are reached too.
        if (round % 3 == 0 && g.size() >= 12) {
            TcpDumpHdr h;
            packHdr(h, static_cast<uint16_t>(1 + rng() % 5),
                    static_cast<uint16_t>(g.size() - 12 + rng() % 8));
            memcpy(g.data(), &h, sizeof h);
        }
        EXPECT_FALSE(parse(g).ok()) << "round " << round;
    }
}

struct WriterCase {
    const char* name;
    std::function<int(TcpDumpWriter&)> call;
};

TEST(TcpDumpStream, TheWriterRefusesWhatNoRecordHolds) {
    Bytes piece(TcpDumpWriter::pieceMax(6) + 1, 0);
    const WriterCase cases[] = {
        {"a name over 256 bytes",
         [](TcpDumpWriter& w) {
             TcpDumpInfo i = info();
             i.dumpName.assign(257, 'x');
             return w.begin(i);
         }},
        {"a path over the limit",
         [](TcpDumpWriter& w) {
             return w.filePiece(std::string(TCP_DATA_PATH_MAX + 1, 'p'), 3, 0, 0, nullptr, 0);
         }},
        {"an empty path", [](TcpDumpWriter& w) { return w.removal("", 3); }},
        {"a piece too big for a record",
         [&](TcpDumpWriter& w) {
             return w.filePiece("b/file", 3, piece.size(), 0, piece.data(),
                                static_cast<uint32_t>(piece.size()));
         }},
    };
    for (const WriterCase& c : cases) {
        Capture cap;
        EXPECT_EQ(c.call(cap.writer), EINVAL) << c.name;
        EXPECT_TRUE(cap.recs.empty()) << c.name;
        EXPECT_EQ(cap.writer.dataRecords(), 0u) << c.name;
    }
    // The largest piece does fit, and reads back.
    Capture cap;
    TcpDumpInfo i = info();
    TcpDumpMeta m;
    m.files = 1;
    m.fileBytes = piece.size() - 1;
    ASSERT_EQ(cap.writer.begin(i), 0);
    ASSERT_EQ(cap.writer.meta(m), 0);
    ASSERT_EQ(cap.writer.filePiece("b/file", 3, m.fileBytes, 0, piece.data(),
                                   static_cast<uint32_t>(m.fileBytes)),
              0);
    ASSERT_EQ(cap.writer.end(), 0);
    ASSERT_EQ(cap.writer.close(0), 0);
    EXPECT_EQ(cap.recs[2].size(), 12u + 0xFFFF);
    TcpDumpStatus st = parse(join(cap.recs));
    EXPECT_TRUE(st.ok()) << st.text();
}

}  // namespace
