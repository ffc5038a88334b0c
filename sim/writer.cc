// Writers.  Each change rewrites one file of the writer's set (writer/00000, writer/00001,
// ... in turn) with new contents, as vol-write would, and advances the volume's data
// version by the writer's step, so a test can make a source that never settles.
//
// A writer sleeps without any lock and takes SimNode::lock() for one change at a time.  A
// change that a final move's stop refuses is counted and not retried: the next tick writes
// the next file, as a client that gave up would.  Writers live in memory only and end with
// the simulator.

#include "sim/writer.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "sim/listing.h"
#include "sim/simcontrol.h"
#include "sim/simnode.h"
#include "sim/volstore.h"

namespace {

using Steady = std::chrono::steady_clock;

struct Writer {
    uint32_t vfsid = 0;
    SimLpId lp{};
    std::string lpName;
    double rate = 0;  // changes per second
    uint64_t files = 16, bytes = 4096, dverStep = 1;
    // Under SimNode::lock().
    uint64_t changes = 0, refused = 0, failed = 0, nextFile = 0;
    unsigned lastStatus = 0;
    // Under gSleepMu.
    bool stop = false;
    std::thread thread;
};

using Key = std::pair<SimLpId, uint32_t>;

// Under SimNode::lock().  Never destroyed: writer threads may still run while the process exits.
auto& gWriters = *new std::map<Key, std::shared_ptr<Writer>>;
// Only for sleeping and stopping; never held together with SimNode::lock().
std::mutex gSleepMu;
std::condition_variable gSleepCv;

// One change; the caller holds SimNode::lock().
void change(Writer* w) {
    SimVolStore& store = SimVolStore::get();
    SimVolume* v = store.find(w->lp, w->vfsid);
    if (v && v->stoppedByOpId) {
        w->refused++;
        return;
    }
    unsigned st = TARN_ERR_VOLNOTFOUND;
    if (v) {
        char path[32];
        std::snprintf(path, sizeof path, "writer/%05llu",
                      static_cast<unsigned long long>(w->nextFile % w->files));
        // Contents that name the data version they make: every change is new data.
        std::string line =
            std::string(path) + " dv=" + std::to_string(v->dataVersion + w->dverStep) + "\n";
        std::string data;
        data.reserve(w->bytes + line.size());
        while (data.size() < w->bytes) data += line;
        data.resize(w->bytes);
        st = store.writeFile(v, path, data, false, w->dverStep);
    }
    if (st) {
        w->failed++;
        w->lastStatus = st;
        return;
    }
    w->changes++;
    w->nextFile++;
}

void run(std::shared_ptr<Writer> w) {
    auto interval = std::chrono::nanoseconds(static_cast<int64_t>(1e9 / w->rate));
    Steady::time_point next = Steady::now();
    for (;;) {
        next += interval;
        {
            std::unique_lock<std::mutex> lk(gSleepMu);
            if (gSleepCv.wait_until(lk, next, [&] { return w->stop; })) return;
        }
        std::lock_guard<std::mutex> g(SimNode::get().lock());
        change(w.get());
        // A writer held up (a slow disk, a long hold of the lock) does not catch up in a burst.
        if (Steady::now() - next > std::chrono::seconds(1)) next = Steady::now();
    }
}

bool number(const std::string& s, double min, double max, double* out) {
    if (s.empty()) return false;
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    if (!end || *end || !(v >= min && v <= max)) return false;
    *out = v;
    return true;
}

bool whole(const std::string& s, double min, double max, uint64_t* out) {
    double v;
    if (!number(s, min, max, &v) || v != static_cast<double>(static_cast<uint64_t>(v)))
        return false;
    *out = static_cast<uint64_t>(v);
    return true;
}

const char* kUsage =
    "writer start VFSID LP RATE_PER_SEC [--files N] [--bytes B] [--dver-step D]\n"
    "writer stop VFSID LP\n"
    "writer list [--json]";

// VFSID LP at a[1], a[2]; the caller holds SimNode::lock().
bool keyArg(const std::vector<std::string>& a, Key* key, std::string* name, std::string* why) {
    uint64_t id;
    if (a.size() < 3 || !whole(a[1], 1, 0xffffffffu, &id)) {
        *why = kUsage;
        return false;
    }
    SimLp* lp = SimNode::get().findLpByNameOrId(a[2]);
    if (!lp) {
        *why = "no LP " + a[2];
        return false;
    }
    *key = {simLpId(lp->uuid), static_cast<uint32_t>(id)};
    *name = lp->name;
    return true;
}

std::string startWriter(const std::vector<std::string>& a, bool* ok) {
    std::lock_guard<std::mutex> g(SimNode::get().lock());
    auto w = std::make_shared<Writer>();
    Key key;
    std::string why;
    if (!keyArg(a, &key, &w->lpName, &why)) return *ok = false, why;
    w->lp = key.first;
    w->vfsid = key.second;
    bool good = a.size() >= 4 && a.size() % 2 == 0 && number(a[3], 0.001, 100000, &w->rate);
    for (size_t i = 4; good && i + 1 < a.size(); i += 2) {
        if (a[i] == "--files")
            good = whole(a[i + 1], 1, 100000, &w->files);
        else if (a[i] == "--bytes")
            good = whole(a[i + 1], 0, 16 << 20, &w->bytes);
        else if (a[i] == "--dver-step")
            good = whole(a[i + 1], 1, 1e15, &w->dverStep);
        else
            good = false;
    }
    if (!good) return *ok = false, std::string(kUsage);
    if (gWriters.count(key))
        return *ok = false, "a writer already changes " + a[1] + " on " + w->lpName;
    if (!SimVolStore::get().find(w->lp, w->vfsid))
        return *ok = false, "no volume " + a[1] + " on " + w->lpName;
    gWriters[key] = w;
    w->thread = std::thread(run, w);
    return "";
}

std::string stopWriter(const std::vector<std::string>& a, bool* ok) {
    std::shared_ptr<Writer> w;
    {
        std::lock_guard<std::mutex> g(SimNode::get().lock());
        Key key;
        std::string name, why;
        if (a.size() != 3 || !keyArg(a, &key, &name, &why))
            return *ok = false, why.empty() ? kUsage : why;
        auto it = gWriters.find(key);
        if (it == gWriters.end()) return *ok = false, "no writer on " + a[1] + " " + name;
        w = it->second;
        gWriters.erase(it);
    }
    {
        std::lock_guard<std::mutex> lk(gSleepMu);
        w->stop = true;
    }
    gSleepCv.notify_all();
    w->thread.join();
    return SimRow()
               .num("changes", w->changes)
               .num("refused", w->refused)
               .num("failed", w->failed)
               .text() +
           "\n";
}

std::string listWriters(const std::vector<std::string>& a, bool* ok) {
    bool json = a.size() == 2 && a[1] == "--json";
    if (a.size() > 2 || (a.size() == 2 && !json)) return *ok = false, std::string(kUsage);
    std::lock_guard<std::mutex> g(SimNode::get().lock());
    std::vector<SimRow> rows;
    for (const auto& [key, w] : gWriters) {
        SimRow r;
        r.num("vfsid", uint64_t{w->vfsid}).word("lp", w->lpName).word("lpid", simLpHex(w->lp));
        r.num("rate", w->rate).num("files", w->files).num("bytes", w->bytes);
        r.num("dverStep", w->dverStep).num("changes", w->changes).num("refused", w->refused);
        r.num("failed", w->failed).num("lastStatus", uint64_t{w->lastStatus});
        rows.push_back(std::move(r));
    }
    return simListing(rows, json);
}

std::string writerCommand(const std::vector<std::string>& a, bool* ok) {
    if (!a.empty() && a[0] == "start") return startWriter(a, ok);
    if (!a.empty() && a[0] == "stop") return stopWriter(a, ok);
    if (!a.empty() && a[0] == "list") return listWriters(a, ok);
    *ok = false;
    return kUsage;
}

}  // namespace

void simWriterRegisterCommands() {
    simRegisterCommand(
        "writer",
        "writer start VFSID LP RATE_PER_SEC [--files N] [--bytes B] [--dver-step D] | "
        "writer stop VFSID LP | writer list [--json]: files changed at a steady rate",
        writerCommand);
}
