// The dump stream's reader, through both of its ways in: tcpDumpParse over a
// stream held whole (voctl's dump files), and tcpDumpReadRecord taking one
// record at a time from a transport (the simulated D-blade's socket). Both
// must take the same records and stop at the same failure, at the same
// offset: a check that one path makes and the other skips is a bug.
//
// Input: byte 0, bit 0 set: before parsing, every header checksum, every data
// record's CRC and the Meta's CRC of the Begin body are made right, so that
// mutations reach the rules behind those checks. The rest is the stream.
#include <arpa/inet.h>
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "fuzz/fuzz_check.h"
#include "util/tcpdump_stream.h"

namespace {

void put32(unsigned char* p, uint32_t v) {
    v = htonl(v);
    memcpy(p, &v, 4);
}

// Sets each record's checks right, as far as its header's length leaves the
// record inside the bytes; fields the checks do not cover stay as they are.
void repair(std::vector<unsigned char>& s) {
    constexpr size_t kCrcAt = offsetof(TcpDumpDataFixed, crc);
    uint32_t beginCrc = 0;
    bool metaSeen = false;
    size_t pos = 0;
    while (s.size() - pos >= sizeof(TcpDumpHdr)) {
        TcpDumpHdr h;
        memcpy(&h, &s[pos], sizeof h);
        h.csum = 0;
        h.csum = computeChecksum(reinterpret_cast<unsigned short*>(&h));
        memcpy(&s[pos], &h, sizeof h);
        pos += sizeof h;
        const size_t len = ntohs(h.length);
        if (s.size() - pos < len) return;
        unsigned char* body = &s[pos];
        pos += len;
        if (ntohs(h.type) == TCP_REC_BEGIN) beginCrc = tcpDumpCrc32(0, body, len);
        if (ntohs(h.type) != TCP_REC_DATA || len < sizeof(TcpDumpDataFixed)) continue;
        TcpDumpDataFixed f;
        memcpy(&f, body, sizeof f);
        const size_t dataAt = sizeof f + ntohs(f.pathLength);
        if (!metaSeen && ntohs(f.kind) == TCP_DATA_META && dataAt + 4 <= len) {
            put32(body + dataAt, beginCrc);
            metaSeen = true;
        }
        memset(body + kCrcAt, 0, 4);
        put32(body + kCrcAt, tcpDumpCrc32(0, body, len));
    }
}

struct Taken {
    TcpDumpStatus status;
    TcpDumpSummary summary;
    uint64_t records = 0;
};

// The whole-buffer parser; every record it hands out lies inside the buffer,
// after the one before it.
Taken parseWhole(const std::vector<unsigned char>& s) {
    Taken t;
    const unsigned char* begin = s.data();
    const unsigned char* end = begin + s.size();
    uint64_t next = 0;
    t.status = tcpDumpParse(begin, s.size(), &t.summary, [&](const TcpDumpRecord& rec) {
        FUZZ_CHECK(rec.offset >= next && rec.offset < s.size());
        next = rec.offset + sizeof(TcpDumpHdr);
        if (rec.dataLength > 0)
            FUZZ_CHECK(rec.data >= begin && rec.data <= end &&
                       rec.dataLength <= static_cast<size_t>(end - rec.data));
        t.records++;
        return true;
    });
    FUZZ_CHECK(t.status.offset <= s.size());
    return t;
}

// Record by record through a transport that hands out the same bytes, then
// anything left after the Close counted as the whole-buffer parser does.
Taken readByRecord(const std::vector<unsigned char>& s) {
    Taken t;
    size_t pos = 0;
    TcpDumpRecv recv = [&](unsigned char* p, unsigned len) {
        if (s.size() - pos < len) {
            pos = s.size();
            return ECONNRESET;
        }
        memcpy(p, s.data() + pos, len);
        pos += len;
        return 0;
    };
    TcpDumpReader reader;
    std::vector<unsigned char> buf;
    TcpDumpRecord rec;
    while (!reader.summary().closed) {
        t.status = tcpDumpReadRecord(reader, recv, &buf, &rec);
        if (!t.status.ok()) break;
        t.records++;
    }
    if (t.status.ok() && pos != s.size()) {
        t.status.error = TcpDumpError::TrailingBytes;
        t.status.offset = pos;
    }
    FUZZ_CHECK(reader.complete() == (reader.summary().closed && reader.failure().ok()));
    t.summary = reader.summary();
    return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::vector<unsigned char> s(data + 1, data + size);
    if (data[0] & 1) repair(s);

    const Taken whole = parseWhole(s);
    const Taken byRecord = readByRecord(s);
    FUZZ_CHECK(whole.status.error == byRecord.status.error);
    FUZZ_CHECK(whole.status.offset == byRecord.status.offset);
    FUZZ_CHECK(whole.status.detail == byRecord.status.detail);
    FUZZ_CHECK(strcmp(whole.status.why, byRecord.status.why) == 0);
    FUZZ_CHECK(whole.records == byRecord.records);
    FUZZ_CHECK(whole.summary.bytes == byRecord.summary.bytes);
    FUZZ_CHECK(whole.summary.dataRecords == byRecord.summary.dataRecords);
    FUZZ_CHECK(whole.summary.closed == byRecord.summary.closed);
    // A stream taken whole ends at its Close, with its totals as announced.
    if (whole.status.ok()) {
        FUZZ_CHECK(whole.summary.closed && whole.summary.bytes == s.size());
        FUZZ_CHECK(whole.summary.files == whole.summary.meta.files);
        FUZZ_CHECK(whole.summary.removals == whole.summary.meta.removals);
        FUZZ_CHECK(whole.summary.fileBytes == whole.summary.meta.fileBytes);
        FUZZ_CHECK(whole.summary.info.fromDV <= whole.summary.info.toDV);
    }
    // The texts people see, for every failure and its detail.
    FUZZ_CHECK(!whole.status.text().empty());
    FUZZ_CHECK(tcpDumpErrorName(whole.status.error)[0] != '\0');

    // The answer to a restore reads the same bytes as one record.
    size_t pos = 0;
    uint32_t code = 0;
    tcpDumpReadAnswer(
        [&](unsigned char* p, unsigned len) {
            if (s.size() - pos < len) return ECONNRESET;
            memcpy(p, s.data() + pos, len);
            pos += len;
            return 0;
        },
        &code);
    return 0;
}
