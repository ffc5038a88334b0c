// The dump/restore connection's wire format, shared by vod, the simulated
// D-blade and voctl: the cookie a client sends first, the 12-byte record
// header with its checksum, the records, and the body of a data record.
//
// Multi-byte fields of headers and records are big-endian. The cookie is the
// one exception: vod hands it out in its own host order and takes it back
// unchanged; clients treat it as opaque bytes.
//
// A stream is: Begin, one Meta data record, any number of other data records,
// End, Close. The D-blade writes a dump's records and reads a restore's (the
// client writes them); for a restore the D-blade answers with a Close of its
// own once the volume is written, or refused. vod itself only ever writes a
// Rejected record, before the D-blade has taken the connection.
//
// Every byte of a stream is covered by a check: each header by its Internet
// checksum; each data record's body by a CRC-32; the Begin body by the CRC
// the Meta record carries; the End body by the count it must match; the
// Close body by being 0. A reader that finds any check failing refuses the
// whole stream.
#ifndef UTIL_TCPDUMP_FRAME_H
#define UTIL_TCPDUMP_FRAME_H

#include <arpa/inet.h>
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

// ---- the cookie (host byte order) ------------------------------------------

enum : uint16_t { TCP_REQ_DUMP = 5, TCP_REQ_RESTORE = 6 };

#pragma pack(push, 1)
struct TcpDumpCookie {
    uint32_t fromVfsId;
    unsigned char lpId[16];
    uint64_t dumpFromDV;
    uint32_t skipClone;
    uint32_t dumpNameLength;
    char dumpName[256];  // not terminated when 256 long
};

struct TcpRestoreCookie {
    uint32_t force;
    uint32_t toVfsId;
    unsigned char lpId[16];
};

struct TcpVfsOpCookie {
    uint16_t requestType;
    uint16_t reserved;
    union {
        TcpDumpCookie dump;
        TcpRestoreCookie restore;
    } u;
};
#pragma pack(pop)

static_assert(sizeof(TcpDumpCookie) == 292, "dump cookie body");
static_assert(sizeof(TcpRestoreCookie) == 24, "restore cookie body");
static_assert(sizeof(TcpVfsOpCookie) == 296, "cookie");

constexpr unsigned TCP_COOKIE_MAX = sizeof(TcpVfsOpCookie);
constexpr unsigned TCP_DUMP_COOKIE_LEN = 4 + sizeof(TcpDumpCookie);        // 296
constexpr unsigned TCP_RESTORE_COOKIE_LEN = 4 + sizeof(TcpRestoreCookie);  // 28

// ---- the record header -------------------------------------------------------

enum : uint16_t {
    TCP_REC_BEGIN = 1,
    TCP_REC_DATA = 2,
    TCP_REC_END = 3,
    TCP_REC_REJECTED = 4,
    TCP_REC_CLOSE = 5,
};

constexpr uint32_t TCP_DUMP_MAGIC = 0x5441524E;  // "TARN"

#pragma pack(push, 1)
struct TcpDumpHdr {
    uint16_t type;
    uint16_t length;  // of the body after the header
    uint32_t magic;
    uint16_t reserved;
    uint16_t csum;
};
#pragma pack(pop)
static_assert(sizeof(TcpDumpHdr) == 12, "record header");

// RFC 1071 over the six 16-bit words as they lie in memory. Stored without
// byte swapping, the sum comes out the same whatever the host's byte order.
inline unsigned short computeChecksum(unsigned short* hdr) {
    uint32_t s = 0;
    for (int i = 0; i < 6; i++) s += hdr[i];
    s = (s >> 16) + (s & 0xFFFF);
    s = (s >> 16) + (s & 0xFFFF);
    return static_cast<unsigned short>(~s & 0xFFFF);
}

inline void packHdr(TcpDumpHdr& hdr, unsigned short type, unsigned short length) {
    hdr.type = htons(type);
    hdr.length = htons(length);
    hdr.magic = htonl(TCP_DUMP_MAGIC);
    hdr.reserved = 0;
    hdr.csum = 0;
    hdr.csum = computeChecksum(reinterpret_cast<unsigned short*>(&hdr));
}

// The magic is "TARN" and the words sum to 0xFFFF (checksum included).
inline bool hdrIsValid(const TcpDumpHdr& hdr) {
    if (ntohl(hdr.magic) != TCP_DUMP_MAGIC) return false;
    TcpDumpHdr h = hdr;
    return computeChecksum(reinterpret_cast<unsigned short*>(&h)) == 0;
}

// ---- the records' bodies -----------------------------------------------------

constexpr uint32_t TCP_DUMP_PROTOCOL_VERSION = 1;

#pragma pack(push, 1)
struct TcpDumpBegin {
    uint32_t protocolVersion;
    uint32_t seconds, nanoseconds;
    uint64_t fromDV, toDV;  // a full dump has fromDV 0
    uint32_t flags;
    uint32_t volNameLength;
    char volName[256];
    uint32_t nodeNameLength;
    char nodeName[256];
    uint32_t dumpNameLength;
    char dumpName[256];
};

struct TcpDumpEnd {
    uint64_t totalDataRecords;  // the Meta record included
};

struct TcpDumpClose {
    uint32_t code;  // 0, or the completion code the stream ended with
};

struct TcpDumpRejected {
    uint32_t code;  // a composite code vod's decodeerror knows
};
#pragma pack(pop)

// A data record's body: this fixed part, then pathLength bytes of path, then
// dataLength bytes of data. crc is the CRC-32 of the whole body computed
// with crc = 0.
enum : uint16_t {
    // First data record of every stream. data: the CRC-32 (u32) of the Begin
    // body, then the volume's attributes as the D-blade chooses to keep them.
    TCP_DATA_META = 1,
    // A piece of a file: data at offset, of a file fileSize long in all
    // (pieces of one file come in order, a file of 0 bytes as one piece).
    TCP_DATA_FILE = 2,
    // The path was removed (no data).
    TCP_DATA_REMOVE = 3,
};

#pragma pack(push, 1)
struct TcpDumpDataFixed {
    uint16_t kind;
    uint16_t pathLength;
    uint32_t dataLength;
    uint64_t version;  // data version of the change
    uint64_t fileSize;
    uint64_t offset;
    uint32_t crc;
};
#pragma pack(pop)
static_assert(sizeof(TcpDumpDataFixed) == 36, "data record fixed part");

// Largest data piece that fits a record beside a path of at most this length.
constexpr unsigned TCP_DATA_PATH_MAX = 1024;
constexpr unsigned TCP_DATA_PIECE_MAX = 0xFFFF - sizeof(TcpDumpDataFixed) - TCP_DATA_PATH_MAX;

// CRC-32 (IEEE 802.3, as zlib computes it); crc is the running value, 0 to start.
inline uint32_t tcpDumpCrc32(uint32_t crc, const void* buf, size_t len) {
    static const struct Table {
        uint32_t t[256];
        Table() {
            for (uint32_t i = 0; i < 256; i++) {
                uint32_t c = i;
                for (int k = 0; k < 8; k++) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
                t[i] = c;
            }
        }
    } table;
    const unsigned char* p = static_cast<const unsigned char*>(buf);
    crc = ~crc;
    while (len-- != 0) crc = table.t[(crc ^ *p++) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

// ---- socket helpers ----------------------------------------------------------

// 0 once all len bytes were received, else an errno value: 9 for sd -1, 104
// when the peer closed first.
inline int recvall(int sd, unsigned char* buf, unsigned len) {
    if (sd == -1) return EBADF;
    while (len != 0) {
        ssize_t n = recv(sd, buf, len, MSG_WAITALL | MSG_NOSIGNAL);
        if (n < 0) return errno;
        if (n == 0) return ECONNRESET;
        buf += n;
        len -= static_cast<unsigned>(n);
    }
    return 0;
}

// 0 once all len bytes were sent, else an errno value: 9 for sd -1, 108 when
// send took nothing.
inline int sendall(int sd, unsigned char* buf, unsigned len) {
    if (sd == -1) return EBADF;
    while (len != 0) {
        ssize_t n = send(sd, buf, len, MSG_WAITALL | MSG_NOSIGNAL);
        if (n < 0) return errno;
        if (n == 0) return ESHUTDOWN;
        buf += n;
        len -= static_cast<unsigned>(n);
    }
    return 0;
}

#endif  // UTIL_TCPDUMP_FRAME_H
