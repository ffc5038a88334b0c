#include "voctl/client.h"

#include <sys/time.h>

namespace voctl {

VoClient::VoClient(const std::string& host, unsigned timeoutSec) : _host(host) {
    timeval tv{static_cast<time_t>(timeoutSec), 0};
    _clnt = clnt_create_timed(host.c_str(), VOPROG, VOVERS, "tcp", &tv);
    if (_clnt == nullptr) {
        _createError = clnt_spcreateerror(host.c_str());
        return;
    }
    // The stubs pass their own fixed time-out; a client-wide one overrides it.
    if (!clnt_control(_clnt, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv))) {
        _createError = host + ": cannot set the RPC time-out";
        clnt_destroy(_clnt);
        _clnt = nullptr;
    }
}

VoClient::~VoClient() {
    if (_clnt != nullptr) clnt_destroy(_clnt);
}

std::string VoClient::callError() const {
    return _clnt != nullptr ? clnt_sperror(_clnt, _host.c_str()) : _createError;
}

ServiceClient connectService(const std::string& host, unsigned long prog, unsigned long vers,
                             unsigned timeoutSec, std::string* err) {
    timeval tv{static_cast<time_t>(timeoutSec), 0};
    ServiceClient c(clnt_create_timed(host.c_str(), prog, vers, "tcp", &tv));
    if (!c) {
        *err = clnt_spcreateerror(host.c_str());
        return c;
    }
    clnt_control(c.get(), CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
    return c;
}

}  // namespace voctl
