// The one reader and the one writer of a dump stream (the records of tcpdump_frame.h), used
// by the simulated D-blade to write dumps and read restores, and by voctl to read dump files.
//
// A stream is: Begin, a Meta data record, file pieces and removals, End, Close. The reader
// takes it one record at a time, from a socket, a file or a buffer, and refuses the whole
// stream at the first check that fails:
//   - every header: magic, checksum, reserved 0, a known type, a length the type allows;
//   - the order of the records (a Rejected record, or a Close with a failure code, may come
//     anywhere: the stream stopped short);
//   - Begin: protocol version, name lengths, fromDV <= toDV;
//   - every data record's CRC-32; Meta first, carrying the CRC-32 of the Begin body;
//   - file pieces in order, each file whole, change versions within (fromDV, toDV];
//   - End: the count of data records, and the Meta's totals of files, removals and bytes;
//   - Close: code 0.
// Nothing is trusted before its check: a length is checked before its body is read, and
// the buffer parser never reads outside the buffer it is given, whatever the bytes.
//
// Nothing here is shared between threads; each reader or writer belongs to one.
#ifndef UTIL_TCPDUMP_STREAM_H
#define UTIL_TCPDUMP_STREAM_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "util/tcpdump_frame.h"

// What a Begin record says.
struct TcpDumpInfo {
    uint32_t protocolVersion = TCP_DUMP_PROTOCOL_VERSION;
    uint32_t seconds = 0, nanoseconds = 0;  // when the dump started
    uint64_t fromDV = 0, toDV = 0;          // fromDV 0: a full dump
    uint32_t flags = 0;
    std::string volName, nodeName, dumpName;  // at most 256 bytes each

    bool full() const { return fromDV == 0; }
    // dumpName:fromDV:toDV, the label an incremental dump continuing this one names.
    std::string label() const;
};

// The Meta record's data after the CRC-32 of the Begin body: the source volume's attributes
// a restore may want, and the totals the rest of the stream must add up to.
struct TcpDumpMeta {
    uint32_t volType = 0;  // 1 read-write, 2 read-only, 3 clone
    uint64_t createTime = 0;
    uint64_t maxQuota = 0;
    uint64_t files = 0;      // whole files the stream carries
    uint64_t removals = 0;   // removal records
    uint64_t fileBytes = 0;  // the files' sizes added up
};
// CRC (4) + volType (4) + five u64.
constexpr unsigned TCP_DUMP_META_LEN = 48;

enum class TcpDumpError : uint8_t {
    Ok,
    Truncated,          // the stream ended before its Close
    Io,                 // the socket or file failed (detail: errno)
    BadMagic,           // a header without "TARN"
    BadHeaderChecksum,  // a header whose words do not sum to 0xFFFF
    BadHeader,          // a header with reserved bits set
    UnknownType,        // a record type this reader does not know
    BadLength,          // a body length its type does not allow
    OutOfOrder,         // a record where the stream's order has no place for it
    BadVersion,         // a Begin of another protocol version (detail: the version)
    BadBegin,           // a Begin with impossible names or data versions
    BadMeta,            // a Meta record of the wrong shape
    BadMetaCrc,         // the Begin body does not match the CRC the Meta carries
    BadDataCrc,         // a data record's body does not match its CRC
    BadData,            // a data record that breaks the rules of pieces, paths or versions
    BadCount,           // End counts another number of data records (detail: its count)
    BadTotals,          // the files, removals or bytes differ from what the Meta announced
    StreamFailed,       // the writer closed the stream with a failure (detail: its code)
    Rejected,           // vod refused the connection (detail: its code)
    TrailingBytes,      // bytes after the Close of a stream held whole
};

// The name of an error as the enum spells it ("BadDataCrc").
const char* tcpDumpErrorName(TcpDumpError e);

struct TcpDumpStatus {
    TcpDumpError error = TcpDumpError::Ok;
    uint64_t offset = 0;   // of the header of the record that failed, or where the bytes ran out
    uint64_t detail = 0;   // see TcpDumpError
    const char* why = "";  // which rule a BadBegin, BadMeta or BadData broke
    bool ok() const { return error == TcpDumpError::Ok; }
    // One line for people: "bad data record CRC (record at offset 1234)".
    std::string text() const;
};

// One good record as the reader hands it out. data points into the caller's buffer and is
// good until that buffer changes.
struct TcpDumpRecord {
    uint16_t type = 0;    // TCP_REC_...
    uint64_t offset = 0;  // of its header in the stream
    // Data records: the fixed part, the path and the data.
    uint16_t kind = 0;  // TCP_DATA_...
    std::string path;
    uint64_t version = 0, fileSize = 0, pieceOffset = 0;
    const unsigned char* data = nullptr;
    uint32_t dataLength = 0;
    uint64_t count = 0;  // End
    uint32_t code = 0;   // Close, Rejected
};

// What a reader has taken so far.
struct TcpDumpSummary {
    bool haveBegin = false, haveMeta = false, ended = false, closed = false;
    TcpDumpInfo info;
    TcpDumpMeta meta;
    uint64_t records = 0;      // every good record, Begin to Close
    uint64_t dataRecords = 0;  // Meta included
    uint64_t files = 0, removals = 0, fileBytes = 0;
    uint64_t bytes = 0;  // of the stream, headers included
};

class TcpDumpReader {
  public:
    // Checks one record header (12 bytes). On success *bodyLength is the length of the body
    // to hand to body() next.
    TcpDumpStatus header(const unsigned char* hdr, uint16_t* bodyLength);
    // Checks the body of the record whose header was accepted last (length bytes, as
    // header() said) and fills *out when it is good.
    TcpDumpStatus body(const unsigned char* body, uint16_t length, TcpDumpRecord* out);
    // Records that the bytes ran out (err ECONNRESET: Truncated) or that the transport
    // failed (any other errno: Io) before the stream was whole.
    TcpDumpStatus transportFailed(int err);

    // True once a good Close came: the stream is whole and every check held.
    bool complete() const { return _sum.closed && _failure.ok(); }
    const TcpDumpSummary& summary() const { return _sum; }
    // The first failure, after which every call answers it again.
    const TcpDumpStatus& failure() const { return _failure; }
    // Bytes taken so far: the offset of the next record.
    uint64_t offset() const { return _sum.bytes; }

  private:
    TcpDumpStatus fail(TcpDumpError e, uint64_t detail = 0);
    TcpDumpStatus takeBegin(const unsigned char* b, uint16_t len);
    TcpDumpStatus takeData(const unsigned char* b, uint16_t len, TcpDumpRecord* out);
    TcpDumpStatus takeEnd(const unsigned char* b);

    TcpDumpSummary _sum;
    TcpDumpStatus _failure;
    bool _inHeader = true;  // the next call must be header()
    uint16_t _type = 0, _length = 0;
    uint64_t _recordOffset = 0;
    uint32_t _beginCrc = 0;
    // The file whose pieces are coming: its path, size and the bytes seen so far.
    bool _fileOpen = false;
    std::string _filePath;
    uint64_t _fileSize = 0, _fileDone = 0;
};

// Reads exactly len bytes into buf: 0, or an errno value (ECONNRESET: the bytes ran out).
using TcpDumpRecv = std::function<int(unsigned char* buf, unsigned len)>;

// Reads and checks one record through recv; its body goes into *buf, which *rec points
// into. Bytes that run out give Truncated, other recv failures Io.
TcpDumpStatus tcpDumpReadRecord(TcpDumpReader& reader, const TcpDumpRecv& recv,
                                std::vector<unsigned char>* buf, TcpDumpRecord* rec);
// The same from a connected socket, with recvall.
TcpDumpStatus tcpDumpReadRecord(TcpDumpReader& reader, int sd, std::vector<unsigned char>* buf,
                                TcpDumpRecord* rec);

// Reads the one record that answers a restore's stream: the D-blade's Close (Ok, *code its
// code: 0 when the volume was restored, else why not), or vod's Rejected (Rejected, *code
// and detail its code). Anything else fails as a stream would.
TcpDumpStatus tcpDumpReadAnswer(const TcpDumpRecv& recv, uint32_t* code);

// Checks a whole stream held in memory, record by record, without reading past len, and
// refuses bytes after the Close. onRecord, when given, sees every good record; when it
// answers false the parse stops there with Ok. *summary gets what was taken. This is the
// entry point for fuzzing.
TcpDumpStatus tcpDumpParse(const unsigned char* buf, size_t len, TcpDumpSummary* summary = nullptr,
                           const std::function<bool(const TcpDumpRecord&)>& onRecord = nullptr);

// Sends len bytes: 0, or a non-zero value the writer hands back unchanged.
using TcpDumpSend = std::function<int(const unsigned char* buf, size_t len)>;

// Writes a stream in order, one send per record. Every call answers 0 or the send's failure;
// a call the stream's rules do not allow (a path over TCP_DATA_PATH_MAX, a piece too big for
// one record, a name over 256 bytes) answers EINVAL and sends nothing. The writer keeps the
// count for End and the CRC of the Begin body for the Meta.
class TcpDumpWriter {
  public:
    explicit TcpDumpWriter(TcpDumpSend send) : _send(std::move(send)) {}

    int begin(const TcpDumpInfo& info);
    int meta(const TcpDumpMeta& meta);
    // One piece of a file: len bytes at offset of a file fileSize long. Pieces of a file go in
    // order; a file of 0 bytes is one piece of 0 bytes.
    int filePiece(const std::string& path, uint64_t version, uint64_t fileSize, uint64_t offset,
                  const void* data, uint32_t len);
    int removal(const std::string& path, uint64_t version);
    int end();
    int close(uint32_t code);

    uint64_t dataRecords() const { return _dataRecords; }
    uint64_t bytes() const { return _bytes; }
    // The largest piece one record holds beside a path of that length.
    static uint32_t pieceMax(size_t pathLength);

  private:
    int data(uint16_t kind, const std::string& path, uint64_t version, uint64_t fileSize,
             uint64_t offset, const void* bytes, uint32_t len);
    int record(const std::vector<unsigned char>& rec);

    TcpDumpSend _send;
    uint32_t _beginCrc = 0;
    uint64_t _dataRecords = 0;
    uint64_t _bytes = 0;
};

// One framed record: its header (packHdr) and body. For the writer, and for tests that build
// streams no writer would. Bodies over 0xFFFF bytes are cut there.
std::vector<unsigned char> tcpDumpFrame(uint16_t type, const unsigned char* body, size_t len);
// A data record's body with its CRC, the fixed part taken as given but for lengths and crc.
std::vector<unsigned char> tcpDumpDataBody(uint16_t kind, const std::string& path, uint64_t version,
                                           uint64_t fileSize, uint64_t offset, const void* data,
                                           uint32_t len);
// The Begin body (812 bytes) of info; names are cut at 256 bytes.
std::vector<unsigned char> tcpDumpBeginBody(const TcpDumpInfo& info);
// The Meta's data: the CRC of the Begin body, then meta.
std::vector<unsigned char> tcpDumpMetaData(uint32_t beginCrc, const TcpDumpMeta& meta);

#endif  // UTIL_TCPDUMP_STREAM_H
