// Incremental-copy streams: one thread per stream, all state under SimNode::lock().
//
// A stream reads from a frozen image of its source (hard links taken when it starts), so
// the source may change or be renumbered meanwhile without the sinks seeing it.  Each file
// goes to a temporary file in every sink that needs it and is renamed into place when
// complete; the sink is hidden from its first change until the stream finishes it.

#include "sim/incrcopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <thread>

#include "dblade_incrcopy.h"
#include "sim/dblade_sync.h"
#include "sim/simnode.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Sink {
    SimSinkSpec spec;
    SimSinkProgress pgrs;
    uint64_t since = 0;            // the sink's data version when the stream started
    SimVolume* vol = nullptr;      // valid while claimed: a claimed volume cannot go away
    bool claimed = false;          // the stream holds the volume's writerOpId
    // Owned by the stream thread: the file being received.
    int tmpFd = -1;
    std::string tmpPath;
    std::string dir;
};

struct Stream {
    uint64_t opId = 0;
    unsigned opType = 0;
    SimLpId srcLp{};
    uint16_t srcDid = 0;
    uint32_t srcVfsid = 0;
    SimVolume* src = nullptr;      // valid while readerHeld
    bool readerHeld = false;
    unsigned srcBlockSize = 4096;
    uint64_t dataVersion = 0;
    std::vector<SimChange> work;   // what the sinks need together, in path order
    std::string imageDir;
    unsigned status = SIMSTREAM_RUNNING;
    bool paused = false;
    unsigned completionCode = 0;
    uint32_t vnodesTotal = 0, vnodesProcessed = 0;
    uint64_t blksRead = 0;
    uint64_t bytesMoved = 0;  // by a caller that counts bytes (simStreamCount)
    unsigned speedKiBps = 0;
    std::vector<Sink> sinks;
    std::condition_variable cv;
    // Throttle window: bytes read since windowStart at windowSpeed KiB/s.
    unsigned windowSpeed = 0;
    Clock::time_point windowStart;
    uint64_t windowBytes = 0;
};

// Never destroyed: detached stream threads may still look at it while the process exits.
auto& gStreams = *new std::map<uint64_t, std::shared_ptr<Stream>>;   // under SimNode::lock()
unsigned gGlobalSpeed = 0;                              // under SimNode::lock()
uint64_t gImageSeq = 0;                                 // under SimNode::lock()

bool active(const Sink& s) { return s.claimed && !s.pgrs.done; }

void endSink(Sink* s, unsigned code) {
    if (s->pgrs.done) return;
    s->pgrs.done = true;
    s->pgrs.completionCode = code;
}

void dropTmp(Sink* s) {
    if (s->tmpFd >= 0) close(s->tmpFd);
    if (!s->tmpPath.empty()) unlink(s->tmpPath.c_str());
    s->tmpFd = -1;
    s->tmpPath.clear();
}

// Gives the sink's volume back; the stream does not touch it again.
void releaseSink(Sink* s) {
    if (!s->claimed) return;
    s->vol->writerOpId = 0;
    s->vol = nullptr;
    s->claimed = false;
}

// Drops what the stream thread still holds for sinks that have ended (cancelled or failed).
void releaseEnded(Stream* st) {
    for (Sink& s : st->sinks) {
        if (!s.pgrs.done) continue;
        dropTmp(&s);
        releaseSink(&s);
    }
}

size_t activeCount(const Stream& st) {
    return std::count_if(st.sinks.begin(), st.sinks.end(), [](const Sink& s) { return active(s); });
}

// Waits while the stream is paused.  False when no sink is left to send to.
bool waitRunnable(Stream* st, std::unique_lock<std::mutex>& lk) {
    while (true) {
        releaseEnded(st);
        if (activeCount(*st) == 0) return false;
        if (!st->paused) return true;
        st->cv.wait(lk);
    }
}

// How much may be read now; 0 after waiting for the speed limit (the caller looks again,
// since a pause, cancel or new limit may have come meanwhile).
size_t nextChunk(Stream* st, std::unique_lock<std::mutex>& lk) {
    unsigned speed = st->speedKiBps ? st->speedKiBps : gGlobalSpeed;
    if (speed == 0) {
        st->windowSpeed = 0;
        return 256 * 1024;
    }
    Clock::time_point now = Clock::now();
    if (st->windowSpeed != speed) {
        st->windowSpeed = speed;
        st->windowStart = now;
        st->windowBytes = 0;
    }
    double rate = speed * 1024.0;
    auto allowed = st->windowStart + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(st->windowBytes / rate));
    if (now < allowed) {
        st->cv.wait_until(lk, allowed);
        return 0;
    }
    // About eight chunks a second, so progress moves smoothly at any limit.
    return std::clamp<size_t>(static_cast<size_t>(speed) * 1024 / 8, 1024, 256 * 1024);
}

bool writeAll(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// Sends one file to the sinks listed in `targets`.  False when the source image cannot be
// read (the stream fails as a whole).
bool sendFile(Stream* st, const SimChange& c, std::vector<Sink*> targets,
              std::unique_lock<std::mutex>& lk) {
    SimVolStore& store = SimVolStore::get();
    std::string img = st->imageDir + "/" + c.path;
    int in = open(img.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    for (Sink* s : targets) {
        // A sink whose LP cannot take the file fails alone, as a full disk would fail it.
        unsigned bs = store.blockSizeOf(s->spec.lp);
        auto had = s->vol->files.find(c.path);
        uint64_t hadBlocks =
            had == s->vol->files.end() || had->second.deleted ? 0 : simBlocks(had->second.size, bs);
        uint64_t grow = simBlocks(c.size, bs) > hadBlocks ? simBlocks(c.size, bs) - hadBlocks : 0;
        if (grow > store.blocksFreeOnLp(s->spec.lp)) {
            endSink(s, VIC_EIO);
            continue;
        }
        s->tmpPath = s->dir + "/" + kSimTmpPrefix + "-s" + std::to_string(st->opId) + "-" +
                     std::to_string(st->vnodesProcessed);
        s->tmpFd = open(s->tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (s->tmpFd < 0) endSink(s, VIC_EIO);
    }
    std::vector<char> buf;
    uint64_t sent = 0;
    bool ok = true;
    while (true) {
        if (!waitRunnable(st, lk)) break;
        targets.erase(std::remove_if(targets.begin(), targets.end(),
                                     [](Sink* s) { return !active(*s); }),
                      targets.end());
        if (targets.empty()) break;
        size_t want = nextChunk(st, lk);
        if (want == 0) continue;
        buf.resize(want);
        lk.unlock();
        ssize_t n;
        do n = read(in, buf.data(), want);
        while (n < 0 && errno == EINTR);
        std::vector<Sink*> failed;
        if (n > 0)
            for (Sink* s : targets)
                if (!writeAll(s->tmpFd, buf.data(), static_cast<size_t>(n))) failed.push_back(s);
        lk.lock();
        if (n < 0) {
            ok = false;
            break;
        }
        for (Sink* s : failed) endSink(s, VIC_EIO);
        if (n == 0) {
            for (Sink* s : targets) {
                if (!active(*s)) continue;
                bool closed = close(s->tmpFd) == 0;
                s->tmpFd = -1;
                if (!closed || store.commitFile(s->vol, c.path, s->tmpPath, c.version, sent))
                    endSink(s, VIC_EIO);
                else
                    s->tmpPath.clear();
            }
            break;
        }
        uint64_t before = sent;
        sent += static_cast<uint64_t>(n);
        st->windowBytes += static_cast<uint64_t>(n);
        st->blksRead += simBlocks(sent, st->srcBlockSize) - simBlocks(before, st->srcBlockSize);
        for (Sink* s : targets) {
            if (!active(*s)) continue;
            unsigned bs = store.blockSizeOf(s->spec.lp);
            s->pgrs.blksSent += simBlocks(sent, bs) - simBlocks(before, bs);
        }
    }
    close(in);
    for (Sink& s : st->sinks) dropTmp(&s);
    return ok;
}

// Sends each sink the changes it lacks.  True when the source image could not be read.
bool transfer(Stream* st, std::unique_lock<std::mutex>& lk) {
    for (const SimChange& c : st->work) {
        if (!waitRunnable(st, lk)) break;
        std::vector<Sink*> targets;
        for (Sink& s : st->sinks)
            if (active(s) && c.version > s.since) targets.push_back(&s);
        if (c.remove) {
            for (Sink* s : targets)
                if (SimVolStore::get().commitDelete(s->vol, c.path, c.version)) endSink(s, VIC_EIO);
        } else if (!targets.empty() && !sendFile(st, c, targets, lk)) {
            return true;
        }
        st->vnodesProcessed++;
    }
    return false;
}

// Ends every sink still receiving: complete, at the source's data version, unless the
// source failed.  Their volumes stay claimed until releaseAll.
void finishSinks(Stream* st, bool sourceFailed) {
    SimVolStore& store = SimVolStore::get();
    for (Sink& s : st->sinks) {
        if (!active(s)) continue;
        if (sourceFailed)
            endSink(&s, VIC_EIO);
        else
            endSink(&s, store.finishSink(s.vol, st->dataVersion) ? VIC_EIO : 0);
    }
}

// Gives back every volume the stream holds; it stays known.
void releaseAll(Stream* st) {
    for (Sink& s : st->sinks) {
        dropTmp(&s);
        releaseSink(&s);
    }
    if (st->readerHeld) {
        st->src->readers--;
        st->readerHeld = false;
    }
}

void endStream(Stream* st, unsigned code) {
    releaseAll(st);
    st->completionCode = code;
    st->status = SIMSTREAM_DONE;
    st->paused = false;
    st->cv.notify_all();
}

// Removes the frozen image without the lock: it is the stream's own.
void dropImage(Stream* st, std::unique_lock<std::mutex>& lk) {
    std::string image = st->imageDir;
    st->imageDir.clear();
    if (image.empty()) return;
    lk.unlock();
    simRemoveTree(image);
    lk.lock();
}

void run(std::shared_ptr<Stream> st) {
    std::unique_lock<std::mutex> lk(SimNode::get().lock());
    bool sourceFailed = transfer(st.get(), lk);
    finishSinks(st.get(), sourceFailed);
    bool anyCancelled = false, allCancelled = true;
    for (const Sink& s : st->sinks) {
        bool cancelled = s.pgrs.completionCode == VIC_ECANCELLED;
        anyCancelled = anyCancelled || cancelled;
        allCancelled = allCancelled && cancelled;
    }
    endStream(st.get(), sourceFailed                   ? VIC_EIO
                        : anyCancelled && allCancelled ? VIC_ECANCELLED
                                                       : 0);
    uint64_t opId = st->opId;
    dropImage(st.get(), lk);
    lk.unlock();
    simNotifyVod(opId);
}

Stream* findStream(uint64_t opId) {
    auto it = gStreams.find(opId);
    return it == gStreams.end() ? nullptr : it->second.get();
}

// Decides whether one sink takes part; claims its volume when it does.
void admitSink(Stream* st, Sink* s) {
    SimVolStore& store = SimVolStore::get();
    SimNode& node = SimNode::get();
    s->pgrs.vfsid = s->spec.vfsid;
    s->pgrs.lp = s->spec.lp;
    SimLp* lp = node.findLp(s->spec.lp.data());
    if (!lp) return endSink(s, VIC_ELPNOTFOUND);
    if (lp->did != s->spec.did) return endSink(s, VIC_ELPMISMATCH);
    for (const Sink* e = st->sinks.data(); e != s; ++e)
        if (e->spec.vfsid == s->spec.vfsid && e->spec.lp == s->spec.lp)
            return endSink(s, VIC_EDUPLICATE);
    if (s->spec.vfsid == st->srcVfsid && s->spec.lp == st->srcLp) return endSink(s, VIC_EINVAL);
    SimVolume* v = store.find(s->spec.lp, s->spec.vfsid);
    if (!v) return endSink(s, VIC_EVOLNOTFOUND);
    if (v->writerOpId || v->readers > 0) return endSink(s, VIC_EVOLBUSY);
    if (v->dataVersion > st->dataVersion) return endSink(s, VIC_EDVMISMATCH);
    if (v->dataVersion == st->dataVersion && !v->hidden) return endSink(s, VIC_ESINKUPTODATE);
    // An interrupted sink may hold parts of a newer image: send it everything.
    s->since = v->hidden ? 0 : v->dataVersion;
    s->vol = v;
    s->dir = store.dirOf(*v);
    s->claimed = true;
    v->writerOpId = st->opId;
}

// A new stream may take the id unless a stream with it still runs; a finished one that was
// never concluded is forgotten.
unsigned takeOpId(uint64_t opId) {
    if (Stream* old = findStream(opId)) {
        if (old->status != SIMSTREAM_DONE) return VIC_EOPIDINUSE;
        gStreams.erase(opId);
    }
    return 0;
}

// The checks every stream makes of its request; nothing is held or registered yet.
unsigned newStream(uint64_t opId, unsigned opType, const SimLpId& srcLp, uint32_t srcVfsid,
                   const std::vector<SimSinkSpec>& sinks, std::shared_ptr<Stream>* out) {
    if (sinks.empty()) return VIC_EINVAL;
    if (unsigned rc = takeOpId(opId)) return rc;
    SimLp* lp = SimNode::get().findLp(srcLp.data());
    if (!lp) return VIC_ELPNOTFOUND;
    SimVolume* src = SimVolStore::get().find(srcLp, srcVfsid);
    if (!src) return VIC_EVOLNOTFOUND;
    if (src->hidden || src->writerOpId) return VIC_EVOLBUSY;

    auto st = std::make_shared<Stream>();
    st->opId = opId;
    st->opType = opType;
    st->srcLp = srcLp;
    st->srcDid = lp->did;
    st->srcVfsid = srcVfsid;
    st->src = src;
    st->srcBlockSize = SimVolStore::get().blockSizeOf(srcLp);
    for (const SimSinkSpec& spec : sinks) {
        Sink s;
        s.spec = spec;
        s.pgrs.vfsid = spec.vfsid;
        s.pgrs.lp = spec.lp;
        st->sinks.push_back(std::move(s));
    }
    *out = std::move(st);
    return 0;
}

// Freezes the source as it stands now, admits the sinks against it and lists what they
// lack together.  VIC_EIO (nothing claimed) when the image cannot be made.
unsigned prepare(Stream* st) {
    SimVolStore& store = SimVolStore::get();
    st->dataVersion = st->src->dataVersion;
    // Image folders are never reused, so a finished stream's thread can still clean up its
    // own while a new stream with the same id starts.
    st->imageDir = store.streamDir(st->srcDid, st->opId) + "-" + std::to_string(++gImageSeq);
    std::string err;
    if (!store.freezeImage(*st->src, st->imageDir, &err)) {
        std::fprintf(stderr, "vodsim: stream %llu: %s\n",
                     static_cast<unsigned long long>(st->opId), err.c_str());
        st->imageDir.clear();
        return VIC_EIO;
    }
    uint64_t since = st->dataVersion;
    for (Sink& s : st->sinks) {
        if (s.pgrs.done) continue;   // cancelled before the send began
        admitSink(st, &s);
        if (s.claimed) since = std::min(since, s.since);
    }
    st->work = simChangesSince(st->src->files, since);
    st->vnodesTotal = static_cast<uint32_t>(st->work.size());
    return 0;
}

void enroll(const std::shared_ptr<Stream>& st) {
    st->src->readers++;
    st->readerHeld = true;
    gStreams[st->opId] = st;
}

}  // namespace

unsigned simStreamStart(uint64_t opId, unsigned opType, const SimLpId& srcLp, uint32_t srcVfsid,
                        const std::vector<SimSinkSpec>& sinks) {
    std::shared_ptr<Stream> st;
    if (unsigned rc = newStream(opId, opType, srcLp, srcVfsid, sinks, &st)) return rc;
    if (unsigned rc = prepare(st.get())) return rc;
    enroll(st);
    std::thread(run, st).detach();
    return 0;
}

unsigned simStreamOpen(uint64_t opId, unsigned opType, const SimLpId& srcLp, uint32_t srcVfsid,
                       const std::vector<SimSinkSpec>& sinks) {
    std::shared_ptr<Stream> st;
    if (unsigned rc = newStream(opId, opType, srcLp, srcVfsid, sinks, &st)) return rc;
    enroll(st);
    return 0;
}

unsigned simStreamSend(uint64_t opId, std::unique_lock<std::mutex>& lk) {
    auto it = gStreams.find(opId);
    if (it == gStreams.end()) return VIC_EOPNOTFOUND;
    std::shared_ptr<Stream> st = it->second;
    if (unsigned rc = prepare(st.get())) return rc;
    bool sourceFailed = transfer(st.get(), lk);
    finishSinks(st.get(), sourceFailed);
    dropImage(st.get(), lk);
    if (sourceFailed) return VIC_EIO;
    for (const Sink& s : st->sinks)
        if (s.pgrs.completionCode && s.pgrs.completionCode != VIC_ESINKUPTODATE)
            return s.pgrs.completionCode;
    return 0;
}

unsigned simStreamOpenInto(uint64_t opId, unsigned opType, const SimLpId& lp, uint32_t vfsid) {
    std::shared_ptr<Stream> st;
    if (unsigned rc = newStream(opId, opType, lp, vfsid, {SimSinkSpec{0, vfsid, lp}}, &st))
        return rc;
    // The volume is the destination here, written as a sink is: nothing may read it either.
    SimVolume* v = st->src;
    if (v->readers > 0 || v->stoppedByOpId) return VIC_EVOLBUSY;
    st->src = nullptr;
    Sink& s = st->sinks[0];
    s.spec.did = st->srcDid;
    s.vol = v;
    s.dir = SimVolStore::get().dirOf(*v);
    s.claimed = true;
    v->writerOpId = opId;
    gStreams[opId] = st;
    return 0;
}

size_t simStreamAwaitTurn(uint64_t opId, std::unique_lock<std::mutex>& lk) {
    while (true) {
        auto it = gStreams.find(opId);
        if (it == gStreams.end()) return 0;
        std::shared_ptr<Stream> st = it->second;  // kept while the lock is let go
        if (st->status == SIMSTREAM_DONE || st->sinks.empty() || st->sinks[0].pgrs.done) return 0;
        if (st->paused) {
            st->cv.wait(lk);
            continue;
        }
        if (size_t n = nextChunk(st.get(), lk)) return n;
    }
}

void simStreamCount(uint64_t opId, uint64_t bytes, uint32_t vnodes) {
    Stream* st = findStream(opId);
    if (!st) return;
    uint64_t before = st->bytesMoved;
    st->bytesMoved += bytes;
    st->windowBytes += bytes;
    uint64_t blocks =
        simBlocks(st->bytesMoved, st->srcBlockSize) - simBlocks(before, st->srcBlockSize);
    st->blksRead += blocks;
    for (Sink& s : st->sinks) s.pgrs.blksSent += blocks;
    st->vnodesProcessed += vnodes;
}

void simStreamSetVnodesTotal(uint64_t opId, uint32_t total) {
    if (Stream* st = findStream(opId)) st->vnodesTotal = total;
}

bool simStreamDestEnded(uint64_t opId, unsigned* code) {
    Stream* st = findStream(opId);
    if (!st || st->sinks.empty()) return false;
    *code = st->sinks[0].pgrs.completionCode;
    return st->sinks[0].pgrs.done;
}

void simStreamWaitWhilePaused(uint64_t opId, std::unique_lock<std::mutex>& lk) {
    auto it = gStreams.find(opId);
    if (it == gStreams.end()) return;
    std::shared_ptr<Stream> st = it->second;
    st->cv.wait(lk, [&] { return !st->paused; });
}

void simStreamRelease(uint64_t opId) {
    if (Stream* st = findStream(opId)) releaseAll(st);
}

void simStreamEnd(uint64_t opId, unsigned code) {
    Stream* st = findStream(opId);
    if (!st) return;
    for (Sink& s : st->sinks) {
        // A failed move leaves no sink complete, whatever it had received.
        if (code && (!s.pgrs.completionCode || s.pgrs.completionCode == VIC_ESINKUPTODATE))
            s.pgrs.done = false;
        endSink(&s, code);
    }
    endStream(st, code);
}

void simStreamForget(uint64_t opId) {
    if (Stream* st = findStream(opId)) {
        releaseAll(st);
        gStreams.erase(opId);
    }
}

uint16_t simStreamDblade(uint64_t opId) {
    Stream* st = findStream(opId);
    const SimLp* lp = st ? SimNode::get().findLp(st->srcLp.data()) : nullptr;
    return lp ? lp->did : 0;
}

bool simStreamProgress(uint64_t opId, SimStreamProgress* out) {
    Stream* st = findStream(opId);
    if (!st) return false;
    out->opId = st->opId;
    out->opType = st->opType;
    out->srcVfsid = st->srcVfsid;
    out->srcLp = st->srcLp;
    out->status = st->status == SIMSTREAM_DONE ? SIMSTREAM_DONE
                  : st->paused                 ? SIMSTREAM_PAUSED
                                               : SIMSTREAM_RUNNING;
    out->completionCode = st->completionCode;
    out->vnodesTotal = st->vnodesTotal;
    out->vnodesProcessed = st->vnodesProcessed;
    out->blksRead = st->blksRead;
    out->dataVersion = st->dataVersion;
    out->speedKiBps = st->speedKiBps;
    out->sinks.clear();
    for (const Sink& s : st->sinks) out->sinks.push_back(s.pgrs);
    return true;
}

unsigned simStreamPause(uint64_t opId) {
    Stream* st = findStream(opId);
    if (!st) return VIC_EOPNOTFOUND;
    if (st->status != SIMSTREAM_DONE) st->paused = true;
    return 0;
}

unsigned simStreamResume(uint64_t opId) {
    Stream* st = findStream(opId);
    if (!st) return VIC_EOPNOTFOUND;
    if (st->paused) {
        st->paused = false;
        st->windowSpeed = 0;   // no credit for the time spent paused
        st->cv.notify_all();
    }
    return 0;
}

unsigned simStreamCancel(uint64_t opId, uint32_t sinkVfsid, const SimLpId& sinkLp) {
    Stream* st = findStream(opId);
    if (!st) return VIC_EOPNOTFOUND;
    for (Sink& s : st->sinks) {
        if (s.spec.vfsid != sinkVfsid || s.spec.lp != sinkLp) continue;
        // The volume is free at once (a cancelled sink is usually deleted next); a file the
        // thread is still receiving for it goes into a temporary file it removes later.
        if (!s.pgrs.done) {
            endSink(&s, VIC_ECANCELLED);
            releaseSink(&s);
        }
        st->cv.notify_all();
        return 0;
    }
    return VIC_EINVAL;
}

unsigned simStreamConclude(uint64_t opId) {
    Stream* st = findStream(opId);
    if (!st) return VIC_EOPNOTFOUND;
    if (st->status != SIMSTREAM_DONE) return VIC_EVOLBUSY;
    gStreams.erase(opId);
    return 0;
}

std::vector<uint64_t> simStreamIds() {
    std::vector<uint64_t> ids;
    for (const auto& [id, st] : gStreams) ids.push_back(id);
    return ids;
}

void simStreamSetGlobalSpeed(unsigned kibps) {
    gGlobalSpeed = kibps;
    for (auto& [id, st] : gStreams) st->cv.notify_all();
}

unsigned simStreamGlobalSpeed() { return gGlobalSpeed; }

bool simStreamSetSpeed(uint64_t opId, unsigned kibps) {
    Stream* st = findStream(opId);
    if (!st) return false;
    st->speedKiBps = kibps;
    st->cv.notify_all();
    return true;
}
