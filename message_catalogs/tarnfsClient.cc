// Texts of the D-blade's volume statuses, keyed "0x%08x" of the status.
#include "message_catalogs/resource_bundle.h"

namespace {

const resourceRow tarnfsClientRows[] = {
    {"error", "Permission denied", "", "0x00000001"},
    {"error", "No such entry", "", "0x00000002"},
    {"error", "I/O error", "", "0x00000003"},
    {"error", "Out of memory", "", "0x00000004"},
    {"error", "Invalid argument", "", "0x00000005"},
    {"error", "Operation not supported", "", "0x00000006"},
    {"error", "Request timed out", "", "0x00000007"},
    {"error", "Resource busy", "", "0x00000008"},
    {"error", "Stale handle", "", "0x00000009"},
    {"error", "No space left on storage pool", "", "0x0000000a"},
    {"error", "Quota exceeded", "", "0x0000000b"},
    {"error", "Read-only file system", "", "0x0000000c"},
    {"error", "Name too long", "", "0x0000000d"},
    {"error", "Bad handle", "", "0x0000000e"},
    {"error", "Server fault", "", "0x0000000f"},
    {"error", "VFS not found", "", "0x00000010"},
    {"error", "VFS already exists", "", "0x00000011"},
    {"error", "VFS has no free entries", "", "0x00000012"},
    {"error", "Invalid storage pool", "", "0x00000013"},
    {"error", "Storage pool not found", "", "0x00000014"},
    {"error", "VFS is not on this storage pool", "", "0x00000015"},
    {"error", "Storage pool is offline", "", "0x00000016"},
    {"error", "VFS is busy", "", "0x00000017"},
    {"error", "VFS is offline", "", "0x00000018"},
    {"error", "VFS is read-only", "", "0x00000019"},
    {"error", "VFS is not a clone", "", "0x0000001a"},
    {"error", "VFS has clones", "", "0x0000001b"},
    {"error", "Invalid VFS id", "", "0x0000001c"},
    {"error", "Invalid VFS name", "", "0x0000001d"},
    {"error", "Invalid attribute mask", "", "0x0000001e"},
    {"error", "Invalid quota", "", "0x0000001f"},
    {"error", "VFS id is held by a hidden VFS", "", "0x00000020"},
    {"error", "Resource temporarily unavailable, try again later", "", "0x00000021"},
    {"error", "VFS is being copied", "", "0x00000022"},
    {"error", "VFS is mounted", "", "0x00000023"},
    {"error", "VFS root not found", "", "0x00000024"},
    {"error", "Clone limit reached", "", "0x00000025"},
    {"error", "VFS id swap failed", "", "0x00000026"},
    {"error", "Data version mismatch", "", "0x00000027"},
    {"error", "Storage pool is full", "", "0x00000028"},
    {"error", "VFS metadata is corrupted", "", "0x00000029"},
    {"error", "Operation cancelled", "", "0x0000002a"},
    {"error", "Too many VFSs on storage pool", "", "0x0000002b"},
    {"error", "VFS delete still in progress, try again later", "", "0x00000129"},
};

}  // namespace

const arrayResourceBundle tarnfsClientCatalog = {
    "tarnfsClient",
    tarnfsClientRows,
    sizeof(tarnfsClientRows) / sizeof(tarnfsClientRows[0]),
};
