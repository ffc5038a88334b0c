// voctl dump-info FILE: what a dump file holds (its label, volume, node, data versions and
// counts) and whether every check of its stream holds. Needs no vod: the file is read with
// the same stream reader the D-blade restores through, so a file this command passes is one
// a restore takes.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "util/tcpdump_stream.h"
#include "voctl/command.h"

namespace voctl {
namespace {

// The tool's failure status: the file was read and a check failed, or it could not be read.
constexpr int kExitCheckFailed = kExitVodFailure;

// Exactly len bytes from fd: 0, ECONNRESET when the file ends first, or errno.
int readExactly(int fd, unsigned char* p, unsigned len) {
    while (len > 0) {
        ssize_t n = read(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) return ECONNRESET;
        p += n;
        len -= static_cast<unsigned>(n);
    }
    return 0;
}

// Reads the whole stream and a byte past its Close, which must not be there.
TcpDumpStatus readDump(int fd, TcpDumpSummary* sum) {
    TcpDumpReader reader;
    TcpDumpRecv recv = [fd](unsigned char* p, unsigned n) { return readExactly(fd, p, n); };
    std::vector<unsigned char> buf;
    TcpDumpStatus st;
    while (st.ok() && !reader.complete()) {
        TcpDumpRecord rec;
        st = tcpDumpReadRecord(reader, recv, &buf, &rec);
    }
    *sum = reader.summary();
    unsigned char extra;
    if (st.ok() && readExactly(fd, &extra, 1) == 0) {
        st.error = TcpDumpError::TrailingBytes;
        st.offset = reader.offset();
    }
    return st;
}

std::string num(uint64_t v) { return std::to_string(v); }

int dumpInfo(Context& ctx, const std::string& file) {
    int fd = file == "-" ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return ctx.out.failure(kExitCheckFailed, file + ": " + strerror(errno));
    TcpDumpSummary sum;
    TcpDumpStatus st = readDump(fd, &sum);
    if (fd != STDIN_FILENO) close(fd);

    const TcpDumpInfo& i = sum.info;
    nlohmann::json obj = {{"file", file},
                          {"ok", st.ok()},
                          {"records", sum.records},
                          {"dataRecords", sum.dataRecords},
                          {"files", sum.files},
                          {"removals", sum.removals},
                          {"fileBytes", sum.fileBytes},
                          {"bytes", sum.bytes}};
    std::vector<std::pair<std::string, std::string>> rows;
    if (sum.haveBegin) {
        obj["label"] = i.label();
        obj["volume"] = i.volName;
        obj["node"] = i.nodeName;
        obj["dumpName"] = i.dumpName;
        obj["fromDV"] = i.fromDV;
        obj["toDV"] = i.toDV;
        obj["full"] = i.full();
        obj["started"] = i.seconds;
        rows = {{"label", i.label()},
                {"volume", i.volName},
                {"node", i.nodeName},
                {"dump name", i.dumpName},
                {"from data version", num(i.fromDV)},
                {"to data version", num(i.toDV)},
                {"kind", i.full() ? "full" : "incremental"}};
    } else {
        for (const char* k :
             {"label", "volume", "node", "dumpName", "fromDV", "toDV", "full", "started"})
            obj[k] = nullptr;
        rows.push_back({"label", "(no good Begin record)"});
    }
    rows.push_back({"records", num(sum.records) + " (" + num(sum.dataRecords) + " data)"});
    rows.push_back({"files", num(sum.files) + " (" + num(sum.fileBytes) + " bytes)"});
    rows.push_back({"removals", num(sum.removals)});
    rows.push_back({"stream bytes", num(sum.bytes)});
    if (st.ok()) {
        rows.push_back({"checks", "all hold"});
    } else {
        obj["failure"] = {{"error", tcpDumpErrorName(st.error)},
                          {"offset", st.offset},
                          {"detail", st.detail},
                          {"text", st.text()}};
        rows.push_back({"checks", "FAILED: " + st.text()});
    }
    ctx.out.result(obj, formatTable(rows));
    return st.ok() ? kExitOk : kExitCheckFailed;
}

const CommandRegistrar reg(
    "dump-info",
    "Show a dump file's label, volume, node and data versions, and check every record of it "
    "(exit status 1 when a check fails); needs no vod",
    [](CLI::App& sub) -> Action {
        auto file = std::make_shared<std::string>();
        sub.add_option("FILE", *file, "the dump file; - for standard input")->required();
        return [file](Context& ctx) { return dumpInfo(ctx, *file); };
    });

}  // namespace
}  // namespace voctl
