// What the daemon reads from a dump/restore client before the D-blade takes
// the connection over, and the checks around it.
//
// Input: byte 0 picks the parser (its value mod 3) and, for the request, how
// the connection behaves (bit 2: the service loop gathered the request
// first; bit 3: the client keeps its end open, which only a gathered request
// can meet without waiting). The rest is the parser's bytes:
//   0  the cookie request, as the client sends it on the connection
//      (VoTcpVfsOp::getRequest over a VoTcpSocket on a socketpair);
//   1  a record header (hdrIsValid);
//   2  a dump label as a client hands it over (DumpLabel::initialize), and
//      a label made from a name and two versions taken from the same bytes.
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "fuzz/fuzz_check.h"
#include "util/tcpdump_frame.h"
#include "volop/vodumplabel.h"
#include "volop/voerrors.h"
#include "volop/votcpvfsop.h"
#include "volop/votrace.h"

namespace {

// Stays under a socketpair's buffer, so the whole input is sent before the read.
constexpr size_t kMaxSent = 4096;

// A request read whole takes its length word and exactly the cookie it
// announces: the bytes after it are the stream's, left on the connection.
void request(const uint8_t* data, size_t size, bool gathered, bool keepOpen) {
    if (size > kMaxSent) size = kMaxSent;
    // Without the loop's gathering the read waits for bytes that never come.
    if (!gathered) keepOpen = false;
    int sv[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
    if (size > 0) FUZZ_CHECK(send(sv[1], data, size, 0) == static_cast<ssize_t>(size));
    if (!keepOpen) shutdown(sv[1], SHUT_WR);

    VoTcpSocket sock(sv[0]);
    if (gathered && !sock.prefetch()) sock.endPrefetch(ETIMEDOUT);
    VoTcpVfsOp op;
    TcpVfsOpCookie cookie;
    VoRec::VoType type = VoRec::VODB_VOLOP_NULL;
    const unsigned rc = op.getRequest(sock, cookie, type);

    std::string rest(size + 1, '\0');
    ssize_t n = recv(sv[0], &rest[0], rest.size(), MSG_DONTWAIT);
    rest.resize(n < 0 ? 0 : static_cast<size_t>(n));
    // Never more than a length word and the largest cookie.
    FUZZ_CHECK(size - rest.size() <= 4 + TCP_COOKIE_MAX);
    if (rc == 0) {
        uint32_t len;
        memcpy(&len, data, 4);
        len = ntohl(len);
        FUZZ_CHECK(type == VoRec::VODB_VOLOP_DUMP || type == VoRec::VODB_VOLOP_RESTORE);
        FUZZ_CHECK(len ==
                   (type == VoRec::VODB_VOLOP_DUMP ? TCP_DUMP_COOKIE_LEN : TCP_RESTORE_COOKIE_LEN));
        FUZZ_CHECK(rest ==
                   std::string(reinterpret_cast<const char*>(data) + 4 + len, size - 4 - len));
    } else {
        const unsigned proc = rc >> 16;
        FUZZ_CHECK(proc == VoProcVodRecvCookie || proc == VoProcSysRecv);
    }
    close(sv[1]);
}

// Every bit of a header counts: one flipped bit in a header that passes
// makes it fail, whichever bit it is.
void header(const uint8_t* data, size_t size) {
    TcpDumpHdr h;
    if (size < sizeof h) return;
    memcpy(&h, data, sizeof h);
    if (!hdrIsValid(h)) return;
    FUZZ_CHECK(ntohl(h.magic) == TCP_DUMP_MAGIC);
    for (unsigned bit = 0; bit < 8 * sizeof h; bit++) {
        TcpDumpHdr f = h;
        reinterpret_cast<unsigned char*>(&f)[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
        FUZZ_CHECK(!hdrIsValid(f));
    }
    // What the writer packs, the reader takes.
    TcpDumpHdr w;
    packHdr(w, ntohs(h.type), ntohs(h.length));
    FUZZ_CHECK(hdrIsValid(w));
}

// A label parses to versions in order and keeps at most LABEL_MAX bytes; a
// label made from a name without a colon parses back to its versions.
void label(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    DumpLabel given;
    const unsigned rc = given.initialize(text.c_str());  // up to the first NUL, as a client's
    FUZZ_CHECK(rc == 0 || rc == VOD_ERR_BAD_DUMP_LABEL);
    FUZZ_CHECK(given.length() <= DumpLabel::LABEL_MAX);
    if (rc == 0) FUZZ_CHECK(given.getFromDV() <= given.getToDV());
    std::string copied(DumpLabel::LABEL_MAX, '\0');
    FUZZ_CHECK(given.getLabel(&copied[0]) == given.length());

    if (size < 16) return;
    uint64_t from, to;
    memcpy(&from, data, 8);
    memcpy(&to, data + 8, 8);
    if (from > to) std::swap(from, to);
    std::string name(text.c_str() + 16);              // the rest, up to its first NUL
    if (name.find(':') != std::string::npos) return;  // the first colon ends the name
    DumpLabel made;
    made.initialize(name.c_str(), from, to);
    FUZZ_CHECK(made.length() <= DumpLabel::LABEL_MAX);
    FUZZ_CHECK(made.getLabel(&copied[0]) == made.length());
    copied.resize(made.length());
    DumpLabel back;
    FUZZ_CHECK(back.initialize(copied.c_str()) == 0);
    FUZZ_CHECK(back.getFromDV() == from && back.getToDV() == to);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Warnings about refused requests go nowhere, but are still formatted.
    isDaemon = 0;
    VoTrace::setConsoleStream(fopen("/dev/null", "w"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t mode = data[0];
    data++;
    size--;
    switch (mode % 3) {
        case 0:
            request(data, size, mode & 4, mode & 8);
            break;
        case 1:
            header(data, size);
            break;
        default:
            label(data, size);
            break;
    }
    return 0;
}
