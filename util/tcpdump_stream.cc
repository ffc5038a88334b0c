// The dump stream's reader and writer. Bodies are read and written field by field at fixed
// offsets in network order, never through the packed structs, so that no field is read
// unaligned or in host order by mistake.

#include "util/tcpdump_stream.h"

#include <string.h>

#include <cstdio>
#include <utility>

namespace {

// ---- network-order fields --------------------------------------------------------------

uint16_t get16(const unsigned char* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t get32(const unsigned char* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
uint64_t get64(const unsigned char* p) { return uint64_t{get32(p)} << 32 | get32(p + 4); }

void put16(unsigned char* p, uint16_t v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}
void put32(unsigned char* p, uint32_t v) {
    put16(p, static_cast<uint16_t>(v >> 16));
    put16(p + 2, static_cast<uint16_t>(v));
}
void put64(unsigned char* p, uint64_t v) {
    put32(p, static_cast<uint32_t>(v >> 32));
    put32(p + 4, static_cast<uint32_t>(v));
}

// ---- the bodies' layouts -----------------------------------------------------------------

constexpr unsigned kNameMax = 256;

// TcpDumpBegin, field offsets.
constexpr unsigned kBeginVersion = 0, kBeginSeconds = 4, kBeginNanos = 8, kBeginFrom = 12,
                   kBeginTo = 20, kBeginFlags = 28, kBeginVolName = 32, kBeginNodeName = 292,
                   kBeginDumpName = 552, kBeginLen = 812;
static_assert(sizeof(TcpDumpBegin) == kBeginLen, "Begin body");

// TcpDumpDataFixed, field offsets.
constexpr unsigned kDataKind = 0, kDataPathLen = 2, kDataLen = 4, kDataVersion = 8,
                   kDataFileSize = 16, kDataOffset = 24, kDataCrc = 32, kDataFixed = 36;
static_assert(sizeof(TcpDumpDataFixed) == kDataFixed, "data record fixed part");

// The body's CRC-32, taken with its crc field as 0.
uint32_t dataCrc(const unsigned char* body, size_t len) {
    static const unsigned char zero[4] = {0, 0, 0, 0};
    uint32_t crc = tcpDumpCrc32(0, body, kDataCrc);
    crc = tcpDumpCrc32(crc, zero, sizeof zero);
    return tcpDumpCrc32(crc, body + kDataFixed, len - kDataFixed);
}

// A length word and up to 256 bytes of name, zero-filled.
void putName(unsigned char* p, const std::string& s) {
    size_t n = s.size() < kNameMax ? s.size() : kNameMax;
    put32(p, static_cast<uint32_t>(n));
    memcpy(p + 4, s.data(), n);
}

bool getName(const unsigned char* p, std::string* out) {
    uint32_t n = get32(p);
    if (n > kNameMax) return false;
    out->assign(reinterpret_cast<const char*>(p + 4), n);
    return true;
}

// A path a data record may carry: 1 to TCP_DATA_PATH_MAX bytes, none of them NUL. What a
// volume accepts beyond that is the restoring side's business.
bool pathOk(const unsigned char* p, size_t n) {
    return n != 0 && n <= TCP_DATA_PATH_MAX && memchr(p, 0, n) == nullptr;
}

}  // namespace

// ---- names and texts ---------------------------------------------------------------------

std::string TcpDumpInfo::label() const {
    return dumpName + ":" + std::to_string(fromDV) + ":" + std::to_string(toDV);
}

namespace {

// Each error's name and its text for people: {d} stands for the detail, {x} for it in hex,
// {errno} for it as an errno text and {why} for the rule broken. In the enum's order.
struct ErrorText {
    TcpDumpError error;
    const char* name;
    const char* text;
};

const ErrorText kErrors[] = {
    {TcpDumpError::Ok, "Ok", "every check holds"},
    {TcpDumpError::Truncated, "Truncated", "the stream ends before its Close record"},
    {TcpDumpError::Io, "Io", "reading failed: {errno}"},
    {TcpDumpError::BadMagic, "BadMagic", "record header without the magic"},
    {TcpDumpError::BadHeaderChecksum, "BadHeaderChecksum", "record header checksum does not hold"},
    {TcpDumpError::BadHeader, "BadHeader", "record header with reserved bits set"},
    {TcpDumpError::UnknownType, "UnknownType", "unknown record type {d}"},
    {TcpDumpError::BadLength, "BadLength", "record length {d} that its type does not allow"},
    {TcpDumpError::OutOfOrder, "OutOfOrder", "record of type {d} out of order"},
    {TcpDumpError::BadVersion, "BadVersion", "unknown protocol version {d}"},
    {TcpDumpError::BadBegin, "BadBegin", "bad Begin record: {why}"},
    {TcpDumpError::BadMeta, "BadMeta", "bad Meta record: {why}"},
    {TcpDumpError::BadMetaCrc, "BadMetaCrc",
     "the Begin record does not match the CRC in the Meta record"},
    {TcpDumpError::BadDataCrc, "BadDataCrc", "data record CRC does not hold"},
    {TcpDumpError::BadData, "BadData", "bad data record: {why}"},
    {TcpDumpError::BadCount, "BadCount",
     "the End record counts {d} data records, not as many as came"},
    {TcpDumpError::BadTotals, "BadTotals", "the {why} differ from what the Meta record announced"},
    {TcpDumpError::StreamFailed, "StreamFailed", "the writer closed the stream with code {d}"},
    {TcpDumpError::Rejected, "Rejected", "refused by vod with code {x}"},
    {TcpDumpError::TrailingBytes, "TrailingBytes", "bytes after the Close record"},
};
static_assert(sizeof kErrors / sizeof kErrors[0] == size_t(TcpDumpError::TrailingBytes) + 1,
              "one text per error");

const ErrorText& errorText(TcpDumpError e) {
    size_t i = static_cast<size_t>(e);
    return i < sizeof kErrors / sizeof kErrors[0] ? kErrors[i] : kErrors[0];
}

}  // namespace

const char* tcpDumpErrorName(TcpDumpError e) { return errorText(e).name; }

std::string TcpDumpStatus::text() const {
    if (ok()) return errorText(error).text;
    char hex[24];
    snprintf(hex, sizeof hex, "0x%08llX", static_cast<unsigned long long>(detail));
    const std::pair<const char*, std::string> fields[] = {
        {"{d}", std::to_string(detail)},
        {"{x}", hex},
        {"{errno}", strerror(static_cast<int>(detail))},
        {"{why}", why},
    };
    std::string t = errorText(error).text;
    for (const auto& [token, value] : fields)
        for (size_t at = t.find(token); at != std::string::npos;
             at = t.find(token, at + value.size()))
            t.replace(at, strlen(token), value);
    // Where the bytes ran out is no record's start.
    bool record = error != TcpDumpError::Truncated && error != TcpDumpError::Io &&
                  error != TcpDumpError::TrailingBytes;
    return t + (record ? " (record at offset " : " (at offset ") + std::to_string(offset) + ")";
}

// ---- the reader --------------------------------------------------------------------------

TcpDumpStatus TcpDumpReader::fail(TcpDumpError e, uint64_t detail) {
    _failure.error = e;
    _failure.offset = _recordOffset;
    _failure.detail = detail;
    return _failure;
}

TcpDumpStatus TcpDumpReader::transportFailed(int err) {
    if (!_failure.ok()) return _failure;
    _recordOffset = _sum.bytes;
    return fail(err == ECONNRESET ? TcpDumpError::Truncated : TcpDumpError::Io,
                err == ECONNRESET ? 0 : static_cast<uint64_t>(err));
}

TcpDumpStatus TcpDumpReader::header(const unsigned char* hdr, uint16_t* bodyLength) {
    if (!_failure.ok()) return _failure;
    _recordOffset = _sum.bytes;
    if (!_inHeader) return fail(TcpDumpError::OutOfOrder);
    TcpDumpHdr h;
    memcpy(&h, hdr, sizeof h);
    if (ntohl(h.magic) != TCP_DUMP_MAGIC) return fail(TcpDumpError::BadMagic);
    if (!hdrIsValid(h)) return fail(TcpDumpError::BadHeaderChecksum);
    if (h.reserved != 0) return fail(TcpDumpError::BadHeader);
    uint16_t type = ntohs(h.type), length = ntohs(h.length);
    bool lengthOk;
    switch (type) {
        case TCP_REC_BEGIN:
            lengthOk = length == kBeginLen;
            break;
        case TCP_REC_DATA:
            lengthOk = length >= kDataFixed;
            break;
        case TCP_REC_END:
            lengthOk = length == sizeof(TcpDumpEnd);
            break;
        case TCP_REC_CLOSE:
            lengthOk = length == sizeof(TcpDumpClose);
            break;
        case TCP_REC_REJECTED:
            lengthOk = length == sizeof(TcpDumpRejected);
            break;
        default:
            return fail(TcpDumpError::UnknownType, type);
    }
    if (!lengthOk) return fail(TcpDumpError::BadLength, length);
    // Nothing may follow a Close; a Rejected may interrupt any other record.
    if (_sum.closed) return fail(TcpDumpError::OutOfOrder, type);
    _type = type;
    _length = length;
    _inHeader = false;
    _sum.bytes += sizeof h;
    *bodyLength = length;
    return _failure;
}

TcpDumpStatus TcpDumpReader::body(const unsigned char* b, uint16_t length, TcpDumpRecord* out) {
    if (!_failure.ok()) return _failure;
    if (_inHeader || length != _length) return fail(TcpDumpError::OutOfOrder, _type);
    _inHeader = true;
    _sum.bytes += length;
    *out = TcpDumpRecord();
    out->type = _type;
    out->offset = _recordOffset;
    TcpDumpStatus st;
    switch (_type) {
        case TCP_REC_REJECTED:
            return fail(TcpDumpError::Rejected, get32(b));
        case TCP_REC_BEGIN:
            if (_sum.haveBegin) return fail(TcpDumpError::OutOfOrder, _type);
            st = takeBegin(b, length);
            break;
        case TCP_REC_DATA:
            if (!_sum.haveBegin || _sum.ended) return fail(TcpDumpError::OutOfOrder, _type);
            st = takeData(b, length, out);
            break;
        case TCP_REC_END:
            if (!_sum.haveMeta || _sum.ended) return fail(TcpDumpError::OutOfOrder, _type);
            st = takeEnd(b);
            out->count = _sum.dataRecords;
            break;
        case TCP_REC_CLOSE:
            // A writer that fails part way says so with a Close of its code, End or not.
            out->code = get32(b);
            if (out->code != 0) return fail(TcpDumpError::StreamFailed, out->code);
            if (!_sum.ended) return fail(TcpDumpError::OutOfOrder, _type);
            _sum.closed = true;
            break;
        default:
            return fail(TcpDumpError::UnknownType, _type);
    }
    if (st.ok()) _sum.records++;
    return st;
}

TcpDumpStatus TcpDumpReader::takeBegin(const unsigned char* b, uint16_t len) {
    TcpDumpInfo& i = _sum.info;
    i.protocolVersion = get32(b + kBeginVersion);
    if (i.protocolVersion != TCP_DUMP_PROTOCOL_VERSION)
        return fail(TcpDumpError::BadVersion, i.protocolVersion);
    i.seconds = get32(b + kBeginSeconds);
    i.nanoseconds = get32(b + kBeginNanos);
    i.fromDV = get64(b + kBeginFrom);
    i.toDV = get64(b + kBeginTo);
    i.flags = get32(b + kBeginFlags);
    if (!getName(b + kBeginVolName, &i.volName) || !getName(b + kBeginNodeName, &i.nodeName) ||
        !getName(b + kBeginDumpName, &i.dumpName)) {
        fail(TcpDumpError::BadBegin);
        _failure.why = "a name longer than 256 bytes";
        return _failure;
    }
    if (i.fromDV > i.toDV) {
        fail(TcpDumpError::BadBegin);
        _failure.why = "from-version above to-version";
        return _failure;
    }
    _beginCrc = tcpDumpCrc32(0, b, len);
    _sum.haveBegin = true;
    return _failure;
}

TcpDumpStatus TcpDumpReader::takeData(const unsigned char* b, uint16_t len, TcpDumpRecord* out) {
    // The CRC first: a damaged body is damage, whatever its fields now say.
    if (get32(b + kDataCrc) != dataCrc(b, len)) return fail(TcpDumpError::BadDataCrc);
    uint16_t kind = get16(b + kDataKind), pathLen = get16(b + kDataPathLen);
    uint32_t dataLen = get32(b + kDataLen);
    if (uint64_t{kDataFixed} + pathLen + dataLen != len) return fail(TcpDumpError::BadLength, len);
    uint64_t version = get64(b + kDataVersion), fileSize = get64(b + kDataFileSize),
             offset = get64(b + kDataOffset);
    const unsigned char* path = b + kDataFixed;
    const unsigned char* data = path + pathLen;
    auto bad = [&](TcpDumpError e, const char* why) {
        fail(e);
        _failure.why = why;
        return _failure;
    };

    if (!_sum.haveMeta) {
        if (kind != TCP_DATA_META) return fail(TcpDumpError::OutOfOrder, TCP_REC_DATA);
        if (pathLen != 0 || dataLen != TCP_DUMP_META_LEN || version || fileSize || offset)
            return bad(TcpDumpError::BadMeta, "its fields are not those of a Meta record");
        if (get32(data) != _beginCrc) return fail(TcpDumpError::BadMetaCrc);
        TcpDumpMeta& m = _sum.meta;
        m.volType = get32(data + 4);
        m.createTime = get64(data + 8);
        m.maxQuota = get64(data + 16);
        m.files = get64(data + 24);
        m.removals = get64(data + 32);
        m.fileBytes = get64(data + 40);
        _sum.haveMeta = true;
    } else if (kind == TCP_DATA_META) {
        return fail(TcpDumpError::OutOfOrder, TCP_REC_DATA);
    } else if (kind == TCP_DATA_FILE || kind == TCP_DATA_REMOVE) {
        if (!pathOk(path, pathLen))
            return bad(TcpDumpError::BadData, "an empty or impossible path");
        if (version <= _sum.info.fromDV || version > _sum.info.toDV)
            return bad(TcpDumpError::BadData, "a change version outside the dump's versions");
        std::string p(reinterpret_cast<const char*>(path), pathLen);
        if (kind == TCP_DATA_REMOVE) {
            if (_fileOpen) return bad(TcpDumpError::BadData, "a file left incomplete");
            if (dataLen || fileSize || offset)
                return bad(TcpDumpError::BadData, "a removal with data");
            _sum.removals++;
        } else {
            if (_fileOpen && (p != _filePath || fileSize != _fileSize || offset != _fileDone))
                return bad(TcpDumpError::BadData, "a piece out of order");
            if (!_fileOpen && offset != 0)
                return bad(TcpDumpError::BadData, "a file that does not start at offset 0");
            if (offset > fileSize || dataLen > fileSize - offset)
                return bad(TcpDumpError::BadData, "a piece beyond the end of its file");
            if (dataLen == 0 && fileSize != 0)
                return bad(TcpDumpError::BadData, "an empty piece of a file that is not empty");
            _fileOpen = true;
            _filePath = p;
            _fileSize = fileSize;
            _fileDone = offset + dataLen;
            if (_fileDone == _fileSize) {
                _fileOpen = false;
                _sum.files++;
                _sum.fileBytes += fileSize;
            }
        }
        out->path = std::move(p);
    } else {
        return bad(TcpDumpError::BadData, "an unknown kind");
    }
    _sum.dataRecords++;
    out->kind = kind;
    out->version = version;
    out->fileSize = fileSize;
    out->pieceOffset = offset;
    out->data = data;
    out->dataLength = dataLen;
    return _failure;
}

TcpDumpStatus TcpDumpReader::takeEnd(const unsigned char* b) {
    uint64_t count = get64(b);
    if (_fileOpen) {
        fail(TcpDumpError::BadData);
        _failure.why = "a file left incomplete";
        return _failure;
    }
    if (count != _sum.dataRecords) return fail(TcpDumpError::BadCount, count);
    const TcpDumpMeta& m = _sum.meta;
    const char* why = m.files != _sum.files           ? "files"
                      : m.removals != _sum.removals   ? "removals"
                      : m.fileBytes != _sum.fileBytes ? "file bytes"
                                                      : nullptr;
    if (why) {
        fail(TcpDumpError::BadTotals);
        _failure.why = why;
        return _failure;
    }
    _sum.ended = true;
    return _failure;
}

// ---- reading from a socket, a file or a buffer ------------------------------------------

TcpDumpStatus tcpDumpReadRecord(TcpDumpReader& reader, const TcpDumpRecv& recv,
                                std::vector<unsigned char>* buf, TcpDumpRecord* rec) {
    if (!reader.failure().ok()) return reader.failure();
    unsigned char hdr[sizeof(TcpDumpHdr)];
    if (int e = recv(hdr, sizeof hdr)) return reader.transportFailed(e);
    uint16_t n = 0;
    TcpDumpStatus st = reader.header(hdr, &n);
    if (!st.ok()) return st;
    buf->resize(n);
    if (int e = recv(buf->data(), n)) return reader.transportFailed(e);
    return reader.body(buf->data(), n, rec);
}

TcpDumpStatus tcpDumpReadRecord(TcpDumpReader& reader, int sd, std::vector<unsigned char>* buf,
                                TcpDumpRecord* rec) {
    return tcpDumpReadRecord(
        reader, [sd](unsigned char* p, unsigned len) { return recvall(sd, p, len); }, buf, rec);
}

TcpDumpStatus tcpDumpReadAnswer(const TcpDumpRecv& recv, uint32_t* code) {
    // A reader takes the header, so the header's checks are the stream's; the body is a
    // lone Close, which a stream would not allow, so it is read here.
    TcpDumpReader reader;
    unsigned char hdr[sizeof(TcpDumpHdr)], body[sizeof(TcpDumpClose)];
    if (int e = recv(hdr, sizeof hdr)) return reader.transportFailed(e);
    uint16_t n = 0;
    TcpDumpStatus st = reader.header(hdr, &n);
    if (!st.ok()) return st;
    uint16_t type = get16(hdr);
    if (type != TCP_REC_CLOSE && type != TCP_REC_REJECTED) {
        st.error = TcpDumpError::OutOfOrder;
        st.detail = type;
        return st;
    }
    if (int e = recv(body, sizeof body)) return reader.transportFailed(e);
    *code = get32(body);
    if (type == TCP_REC_REJECTED) {
        st.error = TcpDumpError::Rejected;
        st.detail = *code;
    }
    return st;
}

TcpDumpStatus tcpDumpParse(const unsigned char* buf, size_t len, TcpDumpSummary* summary,
                           const std::function<bool(const TcpDumpRecord&)>& onRecord) {
    TcpDumpReader r;
    TcpDumpStatus st;
    size_t pos = 0;
    while (true) {
        if (r.summary().closed) {
            if (pos != len) {
                st.error = TcpDumpError::TrailingBytes;
                st.offset = pos;
            }
            break;
        }
        if (len - pos < sizeof(TcpDumpHdr)) {
            st = r.transportFailed(ECONNRESET);
            break;
        }
        uint16_t n = 0;
        st = r.header(buf + pos, &n);
        if (!st.ok()) break;
        pos += sizeof(TcpDumpHdr);
        if (len - pos < n) {
            st = r.transportFailed(ECONNRESET);
            break;
        }
        TcpDumpRecord rec;
        st = r.body(buf + pos, n, &rec);
        if (!st.ok()) break;
        pos += n;
        if (onRecord && !onRecord(rec)) break;
    }
    if (summary) *summary = r.summary();
    return st;
}

// ---- building records ---------------------------------------------------------------------

std::vector<unsigned char> tcpDumpFrame(uint16_t type, const unsigned char* body, size_t len) {
    if (len > 0xFFFF) len = 0xFFFF;
    TcpDumpHdr h;
    packHdr(h, type, static_cast<uint16_t>(len));
    std::vector<unsigned char> rec(sizeof h + len);
    memcpy(rec.data(), &h, sizeof h);
    if (len) memcpy(rec.data() + sizeof h, body, len);
    return rec;
}

std::vector<unsigned char> tcpDumpDataBody(uint16_t kind, const std::string& path, uint64_t version,
                                           uint64_t fileSize, uint64_t offset, const void* data,
                                           uint32_t len) {
    std::vector<unsigned char> b(kDataFixed + path.size() + len);
    put16(&b[kDataKind], kind);
    put16(&b[kDataPathLen], static_cast<uint16_t>(path.size()));
    put32(&b[kDataLen], len);
    put64(&b[kDataVersion], version);
    put64(&b[kDataFileSize], fileSize);
    put64(&b[kDataOffset], offset);
    if (!path.empty()) memcpy(&b[kDataFixed], path.data(), path.size());
    if (len) memcpy(&b[kDataFixed + path.size()], data, len);
    put32(&b[kDataCrc], dataCrc(b.data(), b.size()));
    return b;
}

std::vector<unsigned char> tcpDumpBeginBody(const TcpDumpInfo& info) {
    std::vector<unsigned char> b(kBeginLen, 0);
    put32(&b[kBeginVersion], info.protocolVersion);
    put32(&b[kBeginSeconds], info.seconds);
    put32(&b[kBeginNanos], info.nanoseconds);
    put64(&b[kBeginFrom], info.fromDV);
    put64(&b[kBeginTo], info.toDV);
    put32(&b[kBeginFlags], info.flags);
    putName(&b[kBeginVolName], info.volName);
    putName(&b[kBeginNodeName], info.nodeName);
    putName(&b[kBeginDumpName], info.dumpName);
    return b;
}

std::vector<unsigned char> tcpDumpMetaData(uint32_t beginCrc, const TcpDumpMeta& meta) {
    std::vector<unsigned char> d(TCP_DUMP_META_LEN);
    put32(&d[0], beginCrc);
    put32(&d[4], meta.volType);
    put64(&d[8], meta.createTime);
    put64(&d[16], meta.maxQuota);
    put64(&d[24], meta.files);
    put64(&d[32], meta.removals);
    put64(&d[40], meta.fileBytes);
    return d;
}

// ---- the writer ----------------------------------------------------------------------------

uint32_t TcpDumpWriter::pieceMax(size_t pathLength) {
    size_t room = 0xFFFF - kDataFixed;
    return pathLength >= room ? 0 : static_cast<uint32_t>(room - pathLength);
}

int TcpDumpWriter::record(const std::vector<unsigned char>& rec) {
    int rc = _send(rec.data(), rec.size());
    if (rc == 0) _bytes += rec.size();
    return rc;
}

int TcpDumpWriter::begin(const TcpDumpInfo& info) {
    if (info.volName.size() > kNameMax || info.nodeName.size() > kNameMax ||
        info.dumpName.size() > kNameMax)
        return EINVAL;
    std::vector<unsigned char> b = tcpDumpBeginBody(info);
    _beginCrc = tcpDumpCrc32(0, b.data(), b.size());
    return record(tcpDumpFrame(TCP_REC_BEGIN, b.data(), b.size()));
}

int TcpDumpWriter::meta(const TcpDumpMeta& meta) {
    std::vector<unsigned char> d = tcpDumpMetaData(_beginCrc, meta);
    return data(TCP_DATA_META, "", 0, 0, 0, d.data(), static_cast<uint32_t>(d.size()));
}

int TcpDumpWriter::filePiece(const std::string& path, uint64_t version, uint64_t fileSize,
                             uint64_t offset, const void* bytes, uint32_t len) {
    if (path.empty() || path.size() > TCP_DATA_PATH_MAX || len > pieceMax(path.size()))
        return EINVAL;
    return data(TCP_DATA_FILE, path, version, fileSize, offset, bytes, len);
}

int TcpDumpWriter::removal(const std::string& path, uint64_t version) {
    if (path.empty() || path.size() > TCP_DATA_PATH_MAX) return EINVAL;
    return data(TCP_DATA_REMOVE, path, version, 0, 0, nullptr, 0);
}

int TcpDumpWriter::data(uint16_t kind, const std::string& path, uint64_t version, uint64_t fileSize,
                        uint64_t offset, const void* bytes, uint32_t len) {
    std::vector<unsigned char> b =
        tcpDumpDataBody(kind, path, version, fileSize, offset, bytes, len);
    int rc = record(tcpDumpFrame(TCP_REC_DATA, b.data(), b.size()));
    if (rc == 0) _dataRecords++;
    return rc;
}

int TcpDumpWriter::end() {
    unsigned char b[sizeof(TcpDumpEnd)];
    put64(b, _dataRecords);
    return record(tcpDumpFrame(TCP_REC_END, b, sizeof b));
}

int TcpDumpWriter::close(uint32_t code) {
    unsigned char b[sizeof(TcpDumpClose)];
    put32(b, code);
    return record(tcpDumpFrame(TCP_REC_CLOSE, b, sizeof b));
}
