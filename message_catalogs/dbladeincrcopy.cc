// Texts of the D-blade's incremental-copy completion codes, keyed "%08u" of
// the whole code (20000 and up).
#include "message_catalogs/resource_bundle.h"

namespace {

const resourceRow dbladeincrcopyRows[] = {
    {"error", "unused error code", "", "00020000"},
    {"error", "failed to change VFS location at VLDB", "", "00020001"},
    {"error", "sink is already up-to-date", "", "00020002"},
    {"error", "out of memory", "", "00020011"},
    {"error", "invalid argument", "", "00020012"},
    {"error", "incremental copy operation not found", "", "00020013"},
    {"error", "incremental copy operation id already in use", "", "00020014"},
    {"error", "failed to connect to volop daemon", "", "00020015"},
    {"error", "failed to disconnect from volop daemon", "", "00020016"},
    {"error", "failed to connect to VLDB", "", "00020017"},
    {"error", "failed to allocate data frame", "", "00020018"},
    {"error", "failed to allocate internal data frame", "", "00020019"},
    {"error", "vnode iterator failed", "", "00020020"},
    {"error", "vnode iterator paused", "", "00020021"},
    {"error", "storage pool not found", "", "00020022"},
    {"error", "storage pool is offline", "", "00020023"},
    {"error", "storage pool mismatch", "", "00020024"},
    {"error", "I/O error", "", "00020025"},
    {"error", "failed to take read locks", "", "00020026"},
    {"error", "failed to mark VFS moved on disk", "", "00020027"},
    {"error", "failed to fetch record number", "", "00020028"},
    {"error", "VFS not found", "", "00020029"},
    {"error", "VFS is busy", "", "00020030"},
    {"error", "failed to flush VFS", "", "00020031"},
    {"error", "failed to take request manager write lock", "", "00020032"},
    {"error", "failed to take request manager read lock", "", "00020033"},
    {"error", "failed to lock VFS file id", "", "00020034"},
    {"error", "operation not supported", "", "00020035"},
    {"error", "incremental copy cancelled", "", "00020036"},
    {"error", "duplicate incremental copy request", "", "00020037"},
    {"error", "sink is unreachable", "", "00020038"},
    {"error", "null response from sink", "", "00020039"},
    {"error", "no connection to sink", "", "00020040"},
    {"error", "internal call failed", "", "00020041"},
    {"error", "failed to close lock file", "", "00020042"},
    {"error", "short response from sink", "", "00020043"},
    {"error", "invalid record data version", "", "00020044"},
    {"error", "data version mismatch", "", "00020101"},
    {"error", "failed to create socket", "", "00020102"},
    {"error", "TCP write failed", "", "00020103"},
    {"error", "out of memory for TCP transfer", "", "00020104"},
    {"error", "host unreachable", "", "00020105"},
    {"error", "TCP fault", "", "00020106"},
    {"error", "TCP address already in use", "", "00020107"},
    {"error", "TCP connection broken", "", "00020108"},
    {"error", "socket not connected", "", "00020109"},
    {"error", "other TCP error", "", "00020110"},
    {"error", "TCP connection closed", "", "00020111"},
    {"error", "unknown stream protocol", "", "00020112"},
    {"error", "bad record in stream", "", "00020113"},
    {"error", "failed to allocate index frame", "", "00020114"},
    {"error", "total record count mismatch", "", "00020115"},
    {"error", "sink is not a root VFS", "", "00020116"},
    {"error", "dumped VFS is not a root VFS", "", "00020117"},
    // The catch-all row closes the catalog, as in vodClient; no formatted
    // code is ever the empty key, so the lookup never returns it.
    {"error", "{0}", "", ""},
};

}  // namespace

const arrayResourceBundle dbladeincrcopyCatalog = {
    "dbladeincrcopy",
    dbladeincrcopyRows,
    sizeof(dbladeincrcopyRows) / sizeof(dbladeincrcopyRows[0]),
};
