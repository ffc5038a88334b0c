#include "node.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <rpc/pmap_clnt.h>
#include <rpc/pmap_prot.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "coord.h"
#include "dblade_incrcopy.h"
#include "dblade_lpm.h"
#include "dblade_vol.h"
#include "dldb_server.h"
#include "util/xdrproc.h"
#include "vldb_server.h"
#include "vo.h"

#ifndef VOD_BIN
#error "VOD_BIN must name the vod binary"
#endif
#ifndef VOCTL_BIN
#error "VOCTL_BIN must name the voctl binary"
#endif
#if !defined(VODSIM_BIN) || !defined(VODSIMCTL_BIN)
#error "VODSIM_BIN and VODSIMCTL_BIN must name the simulator's binaries"
#endif

extern char** environ;

// libtirpc keeps small allocations it never frees when a client cannot be
// made (a program not registered yet, a refused connection), which the tests
// provoke on purpose while they poll; the leak check of the sanitizer build
// is about our memory, not the library's.
extern "C" const char* __lsan_default_suppressions() { return "leak:libtirpc.so\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }

namespace vodtest {

namespace {

// Set by the parent for the re-executed binary; consumed (unset) at once so
// that programs started inside do not take themselves for the sandbox's pid 1.
const char kSandboxMarker[] = "VODTEST_SANDBOX";

bool gSandboxed = false;
std::string gWhyNot = "Node::enterSandbox was not called";

double nowSec() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

[[noreturn]] void sandboxFailed(const std::string& what) {
    std::fprintf(stderr, "integration sandbox: %s: %s\n", what.c_str(), strerror(errno));
    std::exit(1);
}

// argv and envp for execve, built before fork: the child of a threaded
// process may only make async-signal-safe calls.
struct ExecArgs {
    std::vector<std::string> argStore, envStore;
    std::vector<char*> argv, envp;

    ExecArgs(const std::string& path, const std::vector<std::string>& args,
             const std::vector<std::string>& extraEnv) {
        argStore.push_back(path);
        argStore.insert(argStore.end(), args.begin(), args.end());
        for (char** e = environ; *e != nullptr; ++e) {
            std::string entry = *e;
            std::string name = entry.substr(0, entry.find('='));
            bool overridden = false;
            for (const std::string& x : extraEnv)
                if (x.compare(0, name.size() + 1, name + "=") == 0) overridden = true;
            if (!overridden) envStore.push_back(entry);
        }
        envStore.insert(envStore.end(), extraEnv.begin(), extraEnv.end());
        for (auto& s : argStore) argv.push_back(&s[0]);
        argv.push_back(nullptr);
        for (auto& s : envStore) envp.push_back(&s[0]);
        envp.push_back(nullptr);
    }
};

// In a forked child: nothing but the three standard descriptors survives exec.
void closeOtherFds() { close_range(3, ~0U, 0); }

int decodeStatus(int st) {
    if (WIFEXITED(st)) return WEXITSTATUS(st);
    if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
    return -1;
}

// Runs a program quietly and returns its exit status (-1 if it cannot run).
int runQuiet(const std::vector<std::string>& argv) {
    RunResult r = runProgram(argv[0], std::vector<std::string>(argv.begin() + 1, argv.end()), 30);
    return r.status;
}

std::string findProgram(const std::vector<std::string>& candidates) {
    for (const auto& c : candidates)
        if (access(c.c_str(), X_OK) == 0) return c;
    return "";
}

// Loopback is down in a new network namespace.
void bringLoopbackUp() {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) sandboxFailed("socket for loopback set-up");
    ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (ioctl(s, SIOCGIFFLAGS, &ifr) < 0) sandboxFailed("SIOCGIFFLAGS lo");
    ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
    if (ioctl(s, SIOCSIFFLAGS, &ifr) < 0) sandboxFailed("SIOCSIFFLAGS lo");
    close(s);
}

// The simulated cluster's D-blade n answers at 127.0.0.n (D-blade 1, the local one, at
// 127.0.0.1). Linux routes all of 127/8 to loopback, so each could be bound as it is; but
// rpcbind answers a client that asks it for a program's address with an address of its
// own interfaces, so each must be on loopback for a client of 127.0.0.n to be sent there.
// The names dblade1 ... dblade8 go into a private /etc/hosts for layouts that name their
// D-blades' hosts.
constexpr int kDbladeAddresses = 8;

void addDbladeAddresses() {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) sandboxFailed("socket for loopback addresses");
    for (int n = 2; n <= kDbladeAddresses; ++n) {
        ifreq ifr;
        memset(&ifr, 0, sizeof ifr);
        snprintf(ifr.ifr_name, IFNAMSIZ, "lo:%d", n);
        sockaddr_in* a = reinterpret_cast<sockaddr_in*>(&ifr.ifr_addr);
        a->sin_family = AF_INET;
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + n);
        if (ioctl(s, SIOCSIFADDR, &ifr) < 0)
            sandboxFailed("add 127.0.0." + std::to_string(n) + " to loopback");
    }
    close(s);
}

// The machine's hosts file plus the D-blade names, bind-mounted over /etc/hosts inside
// the mount namespace only. Needs the private /run.
void privateHostsFile() {
    const char* const kCopy = "/run/vod-sandbox-hosts";
    std::string text;
    if (FILE* in = std::fopen("/etc/hosts", "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, in)) > 0) text.append(buf, n);
        std::fclose(in);
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += "# node sandbox: D-blade n of the simulated cluster\n";
    for (int n = 1; n <= kDbladeAddresses; ++n)
        text += "127.0.0." + std::to_string(n) + " dblade" + std::to_string(n) + "\n";
    FILE* out = std::fopen(kCopy, "w");
    if (out == nullptr) sandboxFailed(std::string("write ") + kCopy);
    bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    if (std::fclose(out) != 0 || !written) sandboxFailed(std::string("write ") + kCopy);
    if (mount(kCopy, "/etc/hosts", nullptr, MS_BIND, nullptr) < 0)
        sandboxFailed("bind-mount a private /etc/hosts");
}

void mountPrivateTmpfs(const char* where) {
    if (mount("tmpfs", where, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") < 0)
        sandboxFailed(std::string("mount tmpfs on ") + where);
}

// True when program prog, version vers on 127.0.0.1 answers a null call;
// port 0 asks the port mapper for it.
bool nullCallAnswers(rpcprog_t prog, rpcvers_t vers, unsigned short port = 0) {
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    int sock = RPC_ANYSOCK;
    CLIENT* c = clnttcp_create(&addr, prog, vers, &sock, 0, 0);
    if (c == nullptr) return false;
    timeval tv{1, 0};
    clnt_stat st = clnt_call(c, NULLPROC, xdrProc(xdr_void), nullptr, xdrProc(xdr_void), nullptr, tv);
    clnt_destroy(c);
    return st == RPC_SUCCESS;
}

bool rpcbindAnswers() { return nullCallAnswers(PMAPPROG, PMAPVERS, PMAPPORT); }

void startRpcbind() {
    std::string rpcbind = findProgram({"/usr/sbin/rpcbind", "/sbin/rpcbind", "/usr/bin/rpcbind"});
    if (rpcbind.empty()) {
        errno = ENOENT;
        sandboxFailed("rpcbind not installed");
    }
    // rpcbind drops to its own user and keeps its state files here.
    mkdir("/run/rpcbind", 0755);
    if (passwd* pw = getpwnam("_rpc")) {
        if (chown("/run/rpcbind", pw->pw_uid, pw->pw_gid) < 0) sandboxFailed("chown /run/rpcbind");
    }
    int logFd = open("/var/log/rpcbind.out", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    ExecArgs ea(rpcbind, {"-f", "-w"}, {});
    pid_t pid = fork();
    if (pid < 0) sandboxFailed("fork rpcbind");
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        dup2(logFd >= 0 ? logFd : devnull, 1);
        dup2(logFd >= 0 ? logFd : devnull, 2);
        closeOtherFds();
        execve(ea.argv[0], ea.argv.data(), ea.envp.data());
        _exit(127);
    }
    if (logFd >= 0) close(logFd);
    bool up = pollUntil(
        [pid] {
            int st;
            if (waitpid(pid, &st, WNOHANG) == pid) {
                errno = ECHILD;
                sandboxFailed("rpcbind ended at start (see /var/log/rpcbind.out)");
            }
            return rpcbindAnswers();
        },
        15);
    if (!up) {
        errno = ETIMEDOUT;
        sandboxFailed("rpcbind does not answer on 127.0.0.1");
    }
}

void setUpInside() {
    bringLoopbackUp();
    mountPrivateTmpfs("/run");
    mountPrivateTmpfs("/var/log");
    addDbladeAddresses();
    privateHostsFile();
    startRpcbind();
}

// ASan's leak check would flag what vod deliberately leaves to exit().
std::string withoutLeakCheck() {
    const char* cur = getenv("ASAN_OPTIONS");
    std::string v = cur != nullptr && *cur != '\0' ? std::string(cur) + ":" : "";
    return "ASAN_OPTIONS=" + v + "detect_leaks=0";
}

int removeEntry(const char* path, const struct stat*, int, FTW*) { return remove(path); }

std::string tailLines(const std::string& s, size_t n) {
    size_t pos = s.size();
    for (size_t i = 0; i < n && pos > 0; ++i) {
        pos = s.rfind('\n', pos - 1);
        if (pos == std::string::npos) return s;
    }
    return s.substr(pos + 1);
}

}  // namespace

const char* vodBinary() { return VOD_BIN; }
const char* voctlBinary() { return VOCTL_BIN; }
const char* vodsimBinary() { return VODSIM_BIN; }
const char* vodsimctlBinary() { return VODSIMCTL_BIN; }

bool pollUntil(const std::function<bool()>& cond, double timeoutSec, double stepSec) {
    double deadline = nowSec() + timeoutSec;
    for (;;) {
        if (cond()) return true;
        if (nowSec() >= deadline) return false;
        usleep(static_cast<useconds_t>(stepSec * 1e6));
    }
}

void UniqueFd::reset(int fd) {
    if (_fd >= 0) close(_fd);
    _fd = fd;
}

void expectNoRaceReport(const std::string& who, const std::string& output) {
    size_t at = output.find("WARNING: ThreadSanitizer:");
    if (at == std::string::npos) at = output.find("ThreadSanitizer:");
    if (at == std::string::npos) return;
    // The first report is enough to find the race; a long run may have many.
    size_t end = output.find("SUMMARY: ThreadSanitizer", at);
    end = end == std::string::npos ? std::min(output.size(), at + 8000) : output.find('\n', end);
    ADD_FAILURE() << who << " reported a race:\n" << output.substr(at, end - at);
}

RunResult runProgram(const std::string& path, const std::vector<std::string>& args, double timeoutSec,
                     const std::vector<std::string>& extraEnv) {
    RunResult r;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) < 0) return r;
    if (pipe2(errPipe, O_CLOEXEC) < 0) {
        close(outPipe[0]);
        close(outPipe[1]);
        return r;
    }
    ExecArgs ea(path, args, extraEnv);
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        closeOtherFds();
        execve(ea.argv[0], ea.argv.data(), ea.envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    if (pid < 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        return r;
    }

    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&r.out, &r.err};
    int openStreams = 2;
    double deadline = nowSec() + timeoutSec;
    bool timedOut = false;
    while (openStreams > 0) {
        int left = static_cast<int>((deadline - nowSec()) * 1000);
        if (left <= 0) {
            timedOut = true;
            break;
        }
        if (poll(fds, 2, left) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, n);
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --openStreams;
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0) close(f.fd);
    if (timedOut) ::kill(pid, SIGKILL);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    r.status = timedOut ? -1 : decodeStatus(st);
    expectNoRaceReport(path, r.err);
    return r;
}

// ---- ConsoleChild

ConsoleChild::~ConsoleChild() {
    if (_pid > 0 && !_reaped) kill(SIGKILL);
    stopReader();
    if (_master >= 0) close(_master);
    if (_log != nullptr) std::fclose(_log);
}

bool ConsoleChild::start(const std::string& path, const std::vector<std::string>& args,
                         const std::string& cwd, const std::string& logPath,
                         const std::vector<std::string>& extraEnv, std::string* error) {
    auto fail = [error](const std::string& what) {
        *error = what + ": " + strerror(errno);
        return false;
    };
    _master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (_master < 0) return fail("posix_openpt");
    char name[128];
    if (grantpt(_master) < 0 || unlockpt(_master) < 0 || ptsname_r(_master, name, sizeof name) != 0)
        return fail("pseudo-terminal set-up");
    int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) return fail(std::string("open ") + name);
    // Raw mode: no echo, and "\n" stays "\n".
    termios t;
    if (tcgetattr(slave, &t) == 0) {
        cfmakeraw(&t);
        tcsetattr(slave, TCSANOW, &t);
    }
    _log = std::fopen(logPath.c_str(), "a");

    ExecArgs ea(path, args, extraEnv);
    _pid = fork();
    if (_pid == 0) {
        setsid();
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        dup2(slave, 1);
        dup2(slave, 2);
        closeOtherFds();
        if (chdir(cwd.c_str()) < 0) _exit(126);
        execve(ea.argv[0], ea.argv.data(), ea.envp.data());
        _exit(127);
    }
    close(slave);
    if (_pid < 0) return fail("fork");
    _reader = std::thread([this] { readLoop(); });
    return true;
}

void ConsoleChild::readLoop() {
    char buf[4096];
    for (;;) {
        {
            std::lock_guard<std::mutex> lk(_mu);
            if (_stop) break;
        }
        pollfd p{_master, POLLIN, 0};
        int r = poll(&p, 1, 100);
        if (r <= 0) continue;
        ssize_t n = read(_master, buf, sizeof buf);
        if (n > 0) {
            std::lock_guard<std::mutex> lk(_mu);
            _out.append(buf, n);
            if (_log != nullptr) {
                std::fwrite(buf, 1, n, _log);
                std::fflush(_log);
            }
            _cv.notify_all();
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
            break;  // EIO: the child and everything it started have closed the terminal
        }
    }
    std::lock_guard<std::mutex> lk(_mu);
    _eof = true;
    _cv.notify_all();
}

void ConsoleChild::stopReader() {
    if (!_reader.joinable()) return;
    {
        std::lock_guard<std::mutex> lk(_mu);
        _stop = true;
    }
    _reader.join();
}

bool ConsoleChild::running() {
    if (_pid <= 0 || _reaped) return false;
    int st;
    pid_t r = waitpid(_pid, &st, WNOHANG);
    if (r == _pid) {
        _reaped = true;
        _status = decodeStatus(st);
        return false;
    }
    return r == 0;
}

int ConsoleChild::wait(double timeoutSec) {
    if (_pid <= 0) return -1;
    if (!pollUntil([this] { return !running(); }, timeoutSec, 0.01)) return -1;
    // The last lines may still be in the terminal; the reader sees EOF after them.
    std::unique_lock<std::mutex> lk(_mu);
    _cv.wait_for(lk, std::chrono::seconds(5), [this] { return _eof; });
    return _status;
}

void ConsoleChild::kill(int sig) {
    if (_pid <= 0 || _reaped) return;
    ::kill(_pid, sig);
    if (sig == SIGKILL) {
        int st;
        while (waitpid(_pid, &st, 0) < 0 && errno == EINTR) {
        }
        _reaped = true;
        _status = decodeStatus(st);
    }
}

std::string ConsoleChild::output() const {
    std::lock_guard<std::mutex> lk(_mu);
    return _out;
}

bool ConsoleChild::waitForOutput(const std::string& needle, double timeoutSec) const {
    std::unique_lock<std::mutex> lk(_mu);
    return _cv.wait_for(lk, std::chrono::duration<double>(timeoutSec),
                        [&] { return _out.find(needle) != std::string::npos; });
}

// ---- Node

void Node::enterSandbox(int argc, char** argv) {
    if (getenv(kSandboxMarker) != nullptr) {
        unsetenv(kSandboxMarker);
        setUpInside();
        gSandboxed = true;
        return;
    }
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--gtest_list_tests") == 0) {
            gWhyNot = "listing tests only";
            return;
        }
    }
    if (geteuid() != 0) {
        gWhyNot = "integration tests need root (private namespaces, rpcbind, vod's port 908)";
        return;
    }
    std::string unshare = findProgram({"/usr/bin/unshare", "/bin/unshare"});
    const std::vector<std::string> nsArgs = {"--net", "--mount", "--pid", "--fork", "--mount-proc",
                                             "--kill-child"};
    std::vector<std::string> probe = {unshare};
    probe.insert(probe.end(), nsArgs.begin(), nsArgs.end());
    probe.push_back("true");
    if (unshare.empty() || runQuiet(probe) != 0) {
        gWhyNot = "creating network, mount and pid namespaces (unshare) is not permitted here";
        return;
    }

    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) {
        gWhyNot = std::string("cannot find this test binary: ") + strerror(errno);
        return;
    }
    exe[n] = '\0';
    std::vector<std::string> args = nsArgs;
    args.push_back(exe);
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    ExecArgs ea(unshare, args, {std::string(kSandboxMarker) + "=1"});
    std::fflush(nullptr);
    execve(ea.argv[0], ea.argv.data(), ea.envp.data());
    gWhyNot = std::string("cannot run unshare: ") + strerror(errno);
}

bool Node::sandboxed() { return gSandboxed; }
const std::string& Node::whyNotSandboxed() { return gWhyNot; }

bool Node::sandboxRequired() {
    const char* ci = getenv("CI");
    return geteuid() == 0 || (ci != nullptr && strcasecmp(ci, "true") == 0);
}

Node::Node() {
    char tmpl[] = "/tmp/vodnode.XXXXXX";
    if (mkdtemp(tmpl) != nullptr) _dir = tmpl;
}

Node::~Node() {
    stop();
    if (_dir.empty()) return;
    if (::testing::Test::HasFailure())
        std::fprintf(stderr, "node files kept in %s\n", _dir.c_str());
    else
        nftw(_dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::vector<std::string> Node::vodEnv() const { return {withoutLeakCheck()}; }

void Node::retire(std::unique_ptr<ConsoleChild>& child, const char* who) {
    if (!child) return;
    child->kill(SIGKILL);
    child->wait(5);
    expectNoRaceReport(who, child->output());
    child.reset();
}

bool Node::startVod(std::vector<std::string> args, Wait wait) {
    retire(_vod, "vod");
    _vodArgs = args;
    // A killed vod stays registered; only a registration made by this vod counts.
    pmap_unset(VOPROG, VOVERS);
    _vod = std::make_unique<ConsoleChild>();
    std::string error;
    if (!_vod->start(VOD_BIN, args, _dir, _dir + "/vod.out", vodEnv(), &error)) {
        std::fprintf(stderr, "cannot start vod: %s\n", error.c_str());
        return false;
    }
    if (wait == Wait::No) return true;
    bool up = pollUntil([this] { return !_vod->running() || vodPort() != 0; }, 20);
    if (!up || !_vod->running()) {
        std::fprintf(stderr, "vod did not register with rpcbind; its output:\n%s\n",
                     _vod->output().c_str());
        return false;
    }
    return true;
}

int Node::waitVodExit(int timeoutSec) { return _vod ? _vod->wait(timeoutSec) : -1; }

void Node::killVod(int sig) {
    if (_vod) _vod->kill(sig);
}

bool Node::restartVod() {
    killVod(SIGKILL);
    return startVod(_vodArgs);
}

bool Node::vodRunning() { return _vod && _vod->running(); }

std::string Node::vodOutput() const { return _vod ? _vod->output() : ""; }

bool Node::waitForTrace(const std::string& needle, int timeoutSec) {
    return _vod && _vod->waitForOutput(needle, timeoutSec);
}

unsigned short Node::vodPort() const {
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return pmap_getport(&addr, VOPROG, VOVERS, IPPROTO_TCP);
}

CLIENT* Node::client(unsigned timeoutSec) {
    timeval tv{static_cast<time_t>(timeoutSec), 0};
    CLIENT* c = clnt_create_timed("127.0.0.1", VOPROG, VOVERS, "tcp", &tv);
    if (c == nullptr) {
        std::fprintf(stderr, "%s\n", clnt_spcreateerror("127.0.0.1"));
        return nullptr;
    }
    clnt_control(c, CLSET_TIMEOUT, reinterpret_cast<char*>(&tv));
    _clients.push_back(c);
    return c;
}

UniqueFd Node::connectRaw() const {
    unsigned short port = vodPort();
    if (port == 0) return UniqueFd();
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return fd;
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) return UniqueFd();
    return fd;
}

Node::Result Node::voctl(std::vector<std::string> args, double timeoutSec) {
    return runProgram(VOCTL_BIN, args, timeoutSec);
}

bool Node::startSim(std::vector<std::string> extraArgs) {
    retire(_sim, "vodsim");
    mkdir(simDir().c_str(), 0755);
    _simArgs = {"--dir", simDir() + "/data", "--control", simDir() + "/control.sock"};
    _simArgs.insert(_simArgs.end(), extraArgs.begin(), extraArgs.end());
    _sim = std::make_unique<ConsoleChild>();
    std::string error;
    if (!_sim->start(VODSIM_BIN, _simArgs, simDir(), simDir() + "/vodsim.out", {}, &error)) {
        std::fprintf(stderr, "cannot start vodsim: %s\n", error.c_str());
        return false;
    }
    const rpcprog_t programs[][2] = {
        {VLDB_PROG, VLDB_VERS},           {DLDB_PROG, DLDB_VERS},
        {COORD_PROG, COORD_VERS},         {DBLADE_LPM_PROG, DBLADE_LPM_VERS},
        {DBLADE_VOL_PROG, DBLADE_VOL_VERS}, {DBLADE_INCRCOPY_PROG, DBLADE_INCRCOPY_VERS}};
    bool up = pollUntil(
        [&] {
            if (!_sim->running()) return true;  // reported below
            if (simctl({"ping"}, 5).status != 0) return false;
            for (const auto& p : programs)
                if (!nullCallAnswers(p[0], p[1])) return false;
            return true;
        },
        20, 0.05);
    if (!up || !_sim->running()) {
        std::fprintf(stderr, "vodsim did not come up; its output:\n%s\n", _sim->output().c_str());
        killSim();
        return false;
    }
    return true;
}

void Node::stopSim() {
    if (!_sim || !_sim->running()) return;
    _sim->kill(SIGTERM);
    if (_sim->wait(10) < 0) _sim->kill(SIGKILL);
}

void Node::killSim() {
    if (_sim) _sim->kill(SIGKILL);
}

bool Node::restartSim(bool crash) {
    std::vector<std::string> extra(_simArgs.size() > 4 ? _simArgs.begin() + 4 : _simArgs.end(),
                                   _simArgs.end());
    if (crash)
        killSim();
    else
        stopSim();
    return startSim(extra);
}

bool Node::simRunning() { return _sim && _sim->running(); }

std::string Node::simOutput() const { return _sim ? _sim->output() : ""; }

Node::Result Node::simctl(std::vector<std::string> args, double timeoutSec) {
    std::vector<std::string> all = {"--control", simDir() + "/control.sock"};
    all.insert(all.end(), args.begin(), args.end());
    return runProgram(VODSIMCTL_BIN, all, timeoutSec);
}

void Node::stop() {
    for (CLIENT* c : _clients) clnt_destroy(c);
    _clients.clear();
    retire(_vod, "vod");
    retire(_sim, "vodsim");
}

// ---- NodeTest

void NodeTest::SetUp() {
    VODTEST_REQUIRE_SANDBOX();
    ASSERT_FALSE(node.dir().empty()) << "cannot make a scratch folder in /tmp";
}

void VodNodeTest::SetUp() {
    NodeTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(node.startVod({"-d"}));
}

void NodeTest::TearDown() {
    if (HasFailure() && node.vodPid() > 0)
        std::fprintf(stderr, "---- last lines of vod's output ----\n%s\n",
                     tailLines(node.vodOutput(), 60).c_str());
    if (HasFailure() && !node.simOutput().empty())
        std::fprintf(stderr, "---- last lines of vodsim's output ----\n%s\n",
                     tailLines(node.simOutput(), 30).c_str());
    node.stop();
}

}  // namespace vodtest
