// The dump/restore connection as the daemon sees it before any D-blade: the
// dump label, the record header, the rejection record, and the cookie
// request read through VoTcpSocket (whole, gathered by the loop, cut short).
#include "votcpvfsop.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vodumplabel.h"
#include "voerrors.h"

namespace {

TEST(DumpLabel, ParsesAndRefuses) {
    const struct {
        std::string label;
        unsigned rc;
        unsigned long long from, to;
    } cases[] = {
        {"", 0, 0, 0},
        {"weekly:0x10:16", 0, 16, 16},
        {"weekly:3:9", 0, 3, 9},
        {"weekly:010:9", 0, 8, 9},       // octal with a leading zero
        {"weekly:3-9", 0, 3, 9},         // any one character separates the numbers
        {"weekly:17:16", 5016, 17, 16},  // from above to
        {"no colon at all", 5016, 0, 0},
        {"a:b:c", 0, 0, 0},  // not numbers: read as 0, which is accepted
    };
    for (const auto& c : cases) {
        DumpLabel l;
        EXPECT_EQ(l.initialize(c.label.c_str()), c.rc) << c.label;
        if (c.rc == 0 || c.from > c.to) {
            EXPECT_EQ(l.getFromDV(), c.from) << c.label;
            EXPECT_EQ(l.getToDV(), c.to) << c.label;
        }
    }
}

TEST(DumpLabel, KeepsTheTailOfALongLabelAndMakesShortOnes) {
    // 300 characters: the versions at the end survive the cut.
    std::string longLabel = std::string(290, 'n') + ":12:345";
    DumpLabel parsed;
    ASSERT_EQ(parsed.initialize(longLabel.c_str()), 0u);
    EXPECT_EQ(parsed.length(), 256u);
    EXPECT_EQ(parsed.getFromDV(), 12u);
    EXPECT_EQ(parsed.getToDV(), 345u);
    char text[257] = {0};
    parsed.getLabel(text);
    EXPECT_EQ(std::string(text, 256), longLabel.substr(longLabel.size() - 256));

    DumpLabel made;
    made.initialize("weekly", 7, 12);
    EXPECT_EQ(made.getLabel(text), 11u);
    EXPECT_STREQ(text, "weekly:7:12");

    // A name too long for the label is shortened, never the versions.
    made.initialize(std::string(400, 'x').c_str(), 123, 4567);
    EXPECT_EQ(made.getLabel(text), 256u);
    EXPECT_EQ(std::string(text + 256 - 9, 9), ":123:4567");
    DumpLabel back;
    ASSERT_EQ(back.initialize(std::string(text, 256).c_str()), 0u);
    EXPECT_EQ(back.getToDV(), 4567u);
}

TEST(TcpFraming, RejectionRecordIsExact) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    VoTcpVfsOp::rejectTcpOp(sv[0], 0x01889C54);
    unsigned char b[17];
    ASSERT_EQ(recv(sv[1], b, sizeof b, MSG_DONTWAIT), 16);
    const unsigned char want[] = {0, 4, 0, 4, 'T', 'A', 'R', 'N', 0, 0};
    EXPECT_EQ(memcmp(b, want, sizeof want), 0);
    const unsigned char code[] = {0x01, 0x88, 0x9C, 0x54};
    EXPECT_EQ(memcmp(b + 12, code, 4), 0);
    // The ones'-complement sum of the six words, checksum included, is 0xFFFF.
    uint32_t sum = 0;
    for (int i = 0; i < 12; i += 2) sum += (b[i] << 8) | b[i + 1];
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    EXPECT_EQ(sum, 0xFFFFu);
    TcpDumpHdr h;
    memcpy(&h, b, sizeof h);
    EXPECT_TRUE(hdrIsValid(h));
    for (size_t i = 0; i < sizeof h; i++) {  // any changed byte is seen
        TcpDumpHdr bad = h;
        reinterpret_cast<unsigned char*>(&bad)[i] ^= 0x20;
        EXPECT_FALSE(hdrIsValid(bad)) << "byte " << i;
    }
    close(sv[0]);
    close(sv[1]);
}

// The bytes of a cookie request: the length word, then len bytes of cookie.
std::string request(uint32_t len, uint16_t type, size_t bodyBytes) {
    std::string s(4, '\0');
    const uint32_t n = htonl(len);
    memcpy(&s[0], &n, 4);
    std::string cookie(bodyBytes, '\0');
    if (bodyBytes >= 2) memcpy(&cookie[0], &type, 2);
    return s + cookie;
}

TEST(TcpCookie, RequestsReadWholeGatheredOrCutShort) {
    const unsigned badLength = (392u << 16) | 40019;
    const unsigned badType = (392u << 16) | 40020;
    const struct {
        const char* name;
        std::string bytes;
        bool closeAfter;  // the client closes once it has sent
        bool gathered;    // read through the loop's prefetch
        unsigned rc;
        int type;
    } cases[] = {
        {"dump", request(296, 5, 296), false, false, 0, VoRec::VODB_VOLOP_DUMP},
        {"restore", request(28, 6, 28), false, false, 0, VoRec::VODB_VOLOP_RESTORE},
        {"dump gathered", request(296, 5, 296), false, true, 0, VoRec::VODB_VOLOP_DUMP},
        {"length 0", request(0, 5, 0), false, false, badLength, 0},
        {"length 297", request(297, 5, 0), false, true, badLength, 0},
        {"restore cut to 20", request(20, 6, 20), false, false, badLength, 0},
        {"request type 7", request(28, 7, 28), false, false, badType, 0},
        {"closed at once", "", true, false, (196u << 16) | (30000 + ECONNRESET), 0},
        {"closed at once, gathered", "", true, true, (196u << 16) | (30000 + ECONNRESET), 0},
        {"half a cookie, closed", request(296, 5, 100), true, true,
         (196u << 16) | (30000 + ECONNRESET), 0},
        {"half a cookie, silent", request(296, 5, 100), false, true,
         (196u << 16) | (30000 + ETIMEDOUT), 0},
        {"garbage", "GET / HTTP/1.0\r\n\r\n", false, true, badLength, 0},
    };
    for (const auto& c : cases) {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        ASSERT_EQ(send(sv[1], c.bytes.data(), c.bytes.size(), 0), ssize_t(c.bytes.size()));
        // What follows a cookie belongs to the D-blade: never read here.
        if (c.rc == 0) {
            ASSERT_EQ(send(sv[1], "STREAM", 6, 0), 6);
        }
        if (c.closeAfter) shutdown(sv[1], SHUT_WR);
        VoTcpSocket sock(sv[0]);
        if (c.gathered) {
            // The loop's view: ready, or not yet and then out of time.
            if (!sock.prefetch()) sock.endPrefetch(ETIMEDOUT);
        }
        VoTcpVfsOp op;
        TcpVfsOpCookie cookie;
        VoRec::VoType type = VoRec::VODB_VOLOP_NULL;
        EXPECT_EQ(op.getRequest(sock, cookie, type), c.rc) << c.name;
        if (c.rc == 0) {
            EXPECT_EQ(type, c.type) << c.name;
        }
        if (c.rc == 0 && !c.closeAfter) {
            char rest[6];
            EXPECT_EQ(recv(sv[0], rest, 6, MSG_DONTWAIT), 6) << c.name;
            EXPECT_EQ(std::string(rest, 6), "STREAM") << c.name;
        }
        close(sv[1]);
    }
}

TEST(TcpCookie, CompositeCodesOfRefusals) {
    const struct {
        voErrFunc func;
        unsigned funcrc;
        unsigned code;
    } cases[] = {
        {voErrVodValidate, VOD_ERR_BUSY_COPY, (393u << 16) | 40022},
        {voErrVodValidate, VOD_ERR_BUSY_RESTORE, (393u << 16) | 40026},
        {voErrVldbRecordLookup, 119, 0x01007737},
        {voErrVldbRecordLookupRpc, RPC_TIMEDOUT, (256u << 16) | (30300 + RPC_TIMEDOUT)},
        {voErrDbladeVolClone, 28, (4u << 16) | 28},
        {voErrVodbCreateRpc, RPC_CANTRECV, (261u << 16) | (30300 + RPC_CANTRECV)},
        {voErrVodMkOpSrcSink, 0x00880000 | 20102, 0x00880000 | 20102},  // already composite
    };
    for (const auto& c : cases)
        EXPECT_EQ(VoTcpVfsOp::compositeOf(c.func, c.funcrc), c.code) << c.func << "/" << c.funcrc;
}

}  // namespace
