// What the administration and operation subcommands share: LP ids given as
// hex or by name, the names of the result enumerations, and the report of a
// failure code with its decoded text.
#ifndef VOCTL_ADMIN_COMMON_H
#define VOCTL_ADMIN_COMMON_H

#include <string>

#include "voctl/command.h"
#include "voctl/lpid.h"

namespace voctl {

// Names of the high-level result codes and failing functions ("VoErrDblade",
// "voErrDbladeVolDelete"); "?" for a value not in the protocol.
const char* rcName(unsigned rc);
const char* funcName(unsigned func);

// An LP given as 32 hex digits (optionally after 0x), or else by name,
// resolved through the DLDB (getlidbylpname_1) of the node named by -H.
// Returns kExitOk with *out set; otherwise the failure is reported and its
// exit status returned.
int resolveLp(Context& ctx, const std::string& text, LpId* out);

// A code decoded: its two halves and "(module) procedure: message".
struct DecodedCode {
    unsigned proc = 0, low = 0;
    std::string message;
    bool byVod = false;    // vod's decodeerror answered; else voctl's own tables
    std::string whyLocal;  // when not byVod: why vod could not be asked
};

// vod's decodeerror on c when given and answering, else the same decoding
// done here: voctl links the daemon's tables.
DecodedCode decodeCodeVia(VoClient* c, unsigned code);

// decodeCodeVia(c, code).message.
std::string decodeCode(VoClient* c, unsigned code);

// Reports a failure code: "voctl: WHAT failed: code 0x... (decoded)" on
// standard error and, with --json, {"error", "status", "code", "decoded"} on
// standard output. Returns kExitVodFailure.
int codeFailure(Context& ctx, VoClient* c, const std::string& what, unsigned code);

// Reports a failed call to one of the node's services (VLDB, DLDB,
// D-blades) by its composite code: a transport failure (low half 30300 +
// clnt_stat) leaves the question open and exits kExitUnreachable; any other
// code answers it and is reported as codeFailure does.
int lookupFailed(Context& ctx, const std::string& what, unsigned code);

// Reports a failed VoOut (rc, func, funcrc) with their names, the same way.
int voOutFailure(Context& ctx, const std::string& what, const VoOut& out);

// The fields of a VoOut as JSON, with the names beside the numbers.
nlohmann::json voOutJson(const VoOut& out);

}  // namespace voctl

#endif  // VOCTL_ADMIN_COMMON_H
