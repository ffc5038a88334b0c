// Texts of the ONC RPC client statuses, keyed by the clnt_stat number
// (code - 30300), for statuses 1 to 16.
#include "message_catalogs/resource_bundle.h"

namespace {

const resourceRow rpcRows[] = {
    {"notice", "can not encode RPC arguments", "", "1"},
    {"notice", "can not decode RPC result", "", "2"},
    {"notice", "can not send RPC data", "", "3"},
    {"notice", "can not receive RPC data", "", "4"},
    {"notice", "RPC call timed out", "", "5"},
    {"notice", "RPC version mismatch", "", "6"},
    {"notice", "RPC authentication error", "", "7"},
    {"notice", "RPC program not available", "", "8"},
    {"notice", "RPC program version mismatch", "", "9"},
    {"notice", "RPC procedure not available", "", "10"},
    {"notice", "server can not decode RPC arguments", "", "11"},
    {"notice", "RPC remote system error", "", "12"},
    {"notice", "unknown host name", "", "13"},
    {"notice", "port mapper failure", "", "14"},
    {"notice", "RPC program not registered", "", "15"},
    {"notice", "RPC call failed", "", "16"},
};

}  // namespace

const arrayResourceBundle rpcCatalog = {
    "rpc",
    rpcRows,
    sizeof(rpcRows) / sizeof(rpcRows[0]),
};
