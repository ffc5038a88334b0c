// The simulated D-blade's pure rules, kept apart so tests can check them without a
// running node: which paths an incremental send carries, the content checksum, which
// paths a volume may hold, and block counts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "sim/volstore.h"

// One step of an incremental send: write `path` (size bytes) or remove it.
struct SimChange {
    std::string path;
    bool remove = false;
    uint64_t version = 0;
    uint64_t size = 0;
};

// What a sink at data version `since` needs to hold the same files as `files`: every
// live file and every tombstone changed after `since`, in path order.  A tombstone is
// sent even when the sink never had the file; removing nothing is harmless and cheaper
// than asking.
inline std::vector<SimChange> simChangesSince(const std::map<std::string, SimFileMeta>& files,
                                              uint64_t since) {
    std::vector<SimChange> out;
    for (const auto& [path, f] : files) {
        if (f.version <= since) continue;
        out.push_back(SimChange{path, f.deleted, f.version, f.deleted ? 0 : f.size});
    }
    return out;
}

inline uint64_t simBlocks(uint64_t bytes, unsigned blockSize) {
    if (blockSize == 0) return 0;
    return (bytes + blockSize - 1) / blockSize;
}

// Names starting with this are the store's temporary files inside a volume folder.
constexpr const char kSimTmpPrefix[] = ".simtmp";

// A relative path of at most 1024 bytes made of non-empty components other than "." and
// "..", without control characters, and not in the store's temporary namespace.
inline bool simValidVolPath(const std::string& p) {
    if (p.empty() || p.size() > 1024 || p.front() == '/' || p.back() == '/') return false;
    for (unsigned char c : p)
        if (c < 0x20 || c == 0x7f) return false;
    size_t start = 0;
    while (start <= p.size()) {
        size_t end = p.find('/', start);
        if (end == std::string::npos) end = p.size();
        std::string comp = p.substr(start, end - start);
        if (comp.empty() || comp == "." || comp == "..") return false;
        if (comp.compare(0, sizeof(kSimTmpPrefix) - 1, kSimTmpPrefix) == 0) return false;
        start = end + 1;
    }
    return true;
}

// FNV-1a over (path, size, bytes) of each file in path order.  Callers feed files sorted by
// path; a file's size goes in before its bytes so that moving bytes from the end of one
// file to the start of the next changes the sum.
class SimChecksum {
public:
    void beginFile(const std::string& path, uint64_t size) {
        add(path.data(), path.size());
        unsigned char zero = 0;
        add(&zero, 1);
        unsigned char sz[8];
        for (int i = 0; i < 8; ++i) sz[i] = static_cast<unsigned char>(size >> (8 * i));
        add(sz, 8);
    }
    void add(const void* data, size_t n) {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < n; ++i) {
            _h ^= p[i];
            _h *= 1099511628211ull;
        }
    }
    std::string hex() const {
        char buf[17];
        std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(_h));
        return buf;
    }

private:
    uint64_t _h = 14695981039346656037ull;
};
