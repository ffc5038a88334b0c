// FakeRpcServer: an in-process ONC RPC server over TCP for unit tests.
//
// It listens on a kernel-chosen 127.0.0.1 port and serves one program and
// version from a background thread, with one handler per procedure given as a
// lambda over the generated XDR records. It speaks the record-marked protocol
// itself (no svc_* globals, no rpcbind), so several fakes can run side by
// side and tests can drop replies or close connections at will.
//
// While a fake is alive, client creation in the daemon (tarn_getport, used by
// VoRPCClient and tarn_clnt_create) finds it by (program, version) through the
// port-lookup seam instead of the machine's port mapper; an unknown pair
// answers port 0 ("not registered").
//
//   FakeRpcServer vldb(VLDB_PROG, VLDB_VERS);
//   vldb.onVoid<new_vfsid_result>(NEW_VFSID, xdr_new_vfsid_result,
//                                 [](new_vfsid_result& r) { r.newvfsid = 42; });
//   VoRPCClient c;
//   c.clnttcp_create("127.0.0.1", VLDB_PROG, VLDB_VERS);
//
// Handlers run on the server's thread, one call at a time. A result is
// encoded as the handler leaves it and is not freed: point its strings and
// arrays at storage that outlives the call (the test's own variables).
#ifndef TESTS_UNIT_FAKE_RPC_SERVER_H
#define TESTS_UNIT_FAKE_RPC_SERVER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <rpc/rpc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include "util/tarn_clnt_create.h"
#include "util/xdrproc.h"

class FakeRpcServer {
  public:
    // What a handler wants done after it ran. Handlers that return nothing reply.
    enum Action {
        Reply,  // encode the result and send it
        // Send nothing: the caller times out. After a time-out the client
        // library skips one reply on that connection (the late one it expects),
        // so the next call on the same bare library client loses its own
        // answer (a VoRPCClient connects afresh instead): model a slow server
        // with a handler that sleeps before replying.
        Drop,
        Close,  // close the connection without a reply
    };

    FakeRpcServer(unsigned long prog, unsigned long vers) : _prog(prog), _vers(vers) {
        _listenFd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (_listenFd < 0 || bind(_listenFd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            listen(_listenFd, 16) != 0 ||
            getsockname(_listenFd, reinterpret_cast<sockaddr*>(&a), &len) != 0 || pipe(_wake) != 0)
            throw std::runtime_error("FakeRpcServer: cannot listen");
        _port = ntohs(a.sin_port);
        registry().add(this);
        _thread = std::thread([this] { loop(); });
    }

    ~FakeRpcServer() {
        registry().remove(this);
        char c = 0;
        (void)!write(_wake[1], &c, 1);
        _thread.join();
        for (auto& conn : _conns) {
            xdr_destroy(&conn->xdrs);
            close(conn->fd);
        }
        close(_listenFd);
        close(_wake[0]);
        close(_wake[1]);
    }

    FakeRpcServer(const FakeRpcServer&) = delete;
    FakeRpcServer& operator=(const FakeRpcServer&) = delete;

    unsigned short port() const { return _port; }
    unsigned long prog() const { return _prog; }
    unsigned long vers() const { return _vers; }

    // Serves procedure proc: the argument is decoded into a zeroed Arg with
    // argFilter, the handler fills a zeroed Res, which goes back through
    // resFilter. Arg may be an array type (an LP id).
    template <typename Arg, typename Res, typename AF, typename RF, typename H>
    void on(unsigned long proc, AF argFilter, RF resFilter, H handler) {
        xdrproc_t af = xdrProc(argFilter);
        xdrproc_t rf = xdrProc(resFilter);
        auto body = [af, rf, handler](XDR* in, XDR* out, bool* garbage) -> Action {
            Arg arg;
            std::memset(&arg, 0, sizeof arg);
            if (!af(in, &arg)) {
                *garbage = true;
                return Reply;
            }
            Res res;
            std::memset(&res, 0, sizeof res);
            Action act = Reply;
            if constexpr (std::is_void_v<decltype(handler(arg, res))>)
                handler(arg, res);
            else
                act = handler(arg, res);
            xdr_free(af, reinterpret_cast<char*>(&arg));
            if (act == Reply) replySuccess(out, rf, &res);
            return act;
        };
        std::lock_guard<std::mutex> g(_mutex);
        _procs[proc] = body;
    }

    // The same for a procedure without argument; the handler takes the Res only.
    template <typename Res, typename RF, typename H>
    void onVoid(unsigned long proc, RF resFilter, H handler) {
        auto wrapped = [handler](int&, Res& res) { return handler(res); };
        on<int, Res>(proc, xdr_void, resFilter, wrapped);
    }

    // How many calls of proc arrived (answered or not).
    int calls(unsigned long proc) const {
        std::lock_guard<std::mutex> g(_mutex);
        auto it = _calls.find(proc);
        return it == _calls.end() ? 0 : it->second;
    }

    void resetCalls() {
        std::lock_guard<std::mutex> g(_mutex);
        _calls.clear();
    }

    // A client made directly to this fake's port (no port look-up at all).
    CLIENT* newClient() const {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(_port);
        int sock = RPC_ANYSOCK;
        return clnttcp_create(&a, _prog, _vers, &sock, 0, 0);
    }

  private:
    struct Conn {
        int fd;
        XDR xdrs;
    };
    using Body = std::function<Action(XDR* in, XDR* out, bool* garbage)>;

    // Every live fake, by (program, version), behind the port-lookup seam.
    class Registry {
      public:
        void add(FakeRpcServer* s) {
            std::lock_guard<std::mutex> g(_m);
            _servers.push_back(s);
            // Installed again on every start, in case a test changed the seam. It is
            // never removed: unit tests must not reach the machine's port mapper.
            tarn_set_port_lookup([this](unsigned long p, unsigned long v, unsigned proto) {
                return lookup(p, v, proto);
            });
        }
        void remove(FakeRpcServer* s) {
            std::lock_guard<std::mutex> g(_m);
            for (auto it = _servers.begin(); it != _servers.end(); ++it)
                if (*it == s) {
                    _servers.erase(it);
                    break;
                }
        }
        unsigned short lookup(unsigned long p, unsigned long v, unsigned proto) {
            std::lock_guard<std::mutex> g(_m);
            if (proto != IPPROTO_TCP) return 0;
            for (auto it = _servers.rbegin(); it != _servers.rend(); ++it)
                if ((*it)->_prog == p && (*it)->_vers == v) return (*it)->_port;
            return 0;
        }

      private:
        std::mutex _m;
        std::vector<FakeRpcServer*> _servers;
    };
    static Registry& registry() {
        static Registry r;
        return r;
    }

    static int readFd(void* h, void* buf, int len) {
        int n = static_cast<int>(read(static_cast<Conn*>(h)->fd, buf, len));
        return n > 0 ? n : -1;
    }
    static int writeFd(void* h, void* buf, int len) {
        int fd = static_cast<Conn*>(h)->fd;
        const char* p = static_cast<const char*>(buf);
        int left = len;
        while (left > 0) {
            ssize_t n = send(fd, p, left, MSG_NOSIGNAL);
            if (n <= 0) return -1;
            p += n;
            left -= static_cast<int>(n);
        }
        return len;
    }

    static void sendReply(XDR* out, rpc_msg* reply) {
        out->x_op = XDR_ENCODE;
        xdr_replymsg(out, reply);
        xdrrec_endofrecord(out, TRUE);
    }
    static rpc_msg acceptedReply(accept_stat st) {
        rpc_msg m;
        std::memset(&m, 0, sizeof m);
        m.rm_direction = REPLY;
        m.rm_reply.rp_stat = MSG_ACCEPTED;
        m.acpted_rply.ar_verf = _null_auth;
        m.acpted_rply.ar_stat = st;
        m.acpted_rply.ar_results.where = nullptr;
        m.acpted_rply.ar_results.proc = xdrProc(xdr_void);
        return m;
    }
    // The xid is filled in by serve(), which knows it.
    static void replySuccess(XDR* out, xdrproc_t rf, void* res) {
        rpc_msg m = acceptedReply(SUCCESS);
        m.rm_xid = currentXid();
        m.acpted_rply.ar_results.where = static_cast<caddr_t>(res);
        m.acpted_rply.ar_results.proc = rf;
        sendReply(out, &m);
    }
    static u_int& currentXid() {
        static thread_local u_int xid = 0;
        return xid;
    }

    // One call from conn; false when the connection is to be closed.
    bool serve(Conn& conn) {
        XDR* x = &conn.xdrs;
        x->x_op = XDR_DECODE;
        if (!xdrrec_skiprecord(x)) return false;
        rpc_msg call;
        std::memset(&call, 0, sizeof call);
        char cred[MAX_AUTH_BYTES], verf[MAX_AUTH_BYTES];
        call.rm_call.cb_cred.oa_base = cred;
        call.rm_call.cb_verf.oa_base = verf;
        if (!xdr_callmsg(x, &call) || call.rm_direction != CALL) return false;
        currentXid() = call.rm_xid;

        Body body;
        {
            std::lock_guard<std::mutex> g(_mutex);
            _calls[call.rm_call.cb_proc]++;
            auto it = _procs.find(call.rm_call.cb_proc);
            if (it != _procs.end()) body = it->second;
        }
        if (call.rm_call.cb_prog != _prog || call.rm_call.cb_vers != _vers || !body) {
            rpc_msg m = acceptedReply(call.rm_call.cb_prog != _prog   ? PROG_UNAVAIL
                                      : call.rm_call.cb_vers != _vers ? PROG_MISMATCH
                                                                      : PROC_UNAVAIL);
            m.rm_xid = call.rm_xid;
            if (m.acpted_rply.ar_stat == PROG_MISMATCH) {
                m.acpted_rply.ar_vers.low = _vers;
                m.acpted_rply.ar_vers.high = _vers;
            }
            sendReply(x, &m);
            return true;
        }
        bool garbage = false;
        Action act = body(x, x, &garbage);
        if (garbage) {
            rpc_msg m = acceptedReply(GARBAGE_ARGS);
            m.rm_xid = call.rm_xid;
            sendReply(x, &m);
            return true;
        }
        return act != Close;
    }

    void loop() {
        for (;;) {
            std::vector<pollfd> fds;
            fds.push_back({_wake[0], POLLIN, 0});
            fds.push_back({_listenFd, POLLIN, 0});
            for (auto& c : _conns) fds.push_back({c->fd, POLLIN, 0});
            if (poll(fds.data(), fds.size(), -1) < 0) continue;
            if (fds[0].revents) return;
            if (fds[1].revents & POLLIN) {
                int fd = accept(_listenFd, nullptr, nullptr);
                if (fd >= 0) {
                    auto c = std::make_unique<Conn>();
                    c->fd = fd;
                    xdrrec_create(&c->xdrs, 0, 0, reinterpret_cast<char*>(c.get()), readFd,
                                  writeFd);
                    _conns.push_back(std::move(c));
                }
            }
            for (size_t i = 2; i < fds.size(); i++) {
                if (!fds[i].revents) continue;
                Conn* c = nullptr;
                for (auto& p : _conns)
                    if (p->fd == fds[i].fd) c = p.get();
                if (c && !serve(*c)) {
                    xdr_destroy(&c->xdrs);
                    close(c->fd);
                    for (auto it = _conns.begin(); it != _conns.end(); ++it)
                        if (it->get() == c) {
                            _conns.erase(it);
                            break;
                        }
                }
            }
        }
    }

    unsigned long _prog, _vers;
    int _listenFd = -1;
    int _wake[2] = {-1, -1};
    unsigned short _port = 0;
    mutable std::mutex _mutex;  // guards _procs and _calls
    std::map<unsigned long, Body> _procs;
    std::map<unsigned long, int> _calls;
    std::vector<std::unique_ptr<Conn>> _conns;  // server thread only
    std::thread _thread;
};

#endif  // TESTS_UNIT_FAKE_RPC_SERVER_H
