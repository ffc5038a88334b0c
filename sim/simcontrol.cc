// The control socket: a listening thread and one thread per request.

#include "simcontrol.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

namespace {

struct Entry {
  std::string usage;
  SimCommand fn;
};

std::mutex gMu;  // guards gCommands and gPath
std::map<std::string, Entry> gCommands;
std::string gPath;

constexpr size_t kMaxRequest = 16 << 20;  // file contents travel in requests

std::string helpText() {
  std::lock_guard<std::mutex> g(gMu);
  std::string out;
  for (auto& [name, e] : gCommands) {
    out += e.usage;
    if (out.empty() || out.back() != '\n') out += '\n';
  }
  return out;
}

bool writeAll(int fd, const std::string& s) {
  size_t off = 0;
  while (off < s.size()) {
    ssize_t n = ::send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    off += static_cast<size_t>(n);
  }
  return true;
}

void serveOne(int fd) {
  std::string line;
  char buf[65536];
  bool complete = false;
  while (!complete && line.size() < kMaxRequest) {
    ssize_t n = ::recv(fd, buf, sizeof buf, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    line.append(buf, static_cast<size_t>(n));
    complete = line.find('\n') != std::string::npos;
  }
  std::vector<std::string> words;
  bool ok = true;
  std::string reply;
  if (!complete || !simControlDecode(line.substr(0, line.find('\n')), &words)) {
    ok = false;
    reply = "malformed request";
  } else {
    reply = simControlRun(words, &ok);
  }
  writeAll(fd, (ok ? "OK\n" : "ERR\n") + reply);
  ::close(fd);
}

void acceptLoop(int lfd) {
  for (;;) {
    int fd = ::accept(lfd, nullptr, nullptr);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE) {
        if (errno == EMFILE || errno == ENFILE) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      return;
    }
    std::thread(serveOne, fd).detach();
  }
}

}  // namespace

void simRegisterCommand(const std::string& name, const std::string& usage, SimCommand fn) {
  std::lock_guard<std::mutex> g(gMu);
  gCommands[name] = {usage, std::move(fn)};
}

std::string simControlRun(const std::vector<std::string>& words, bool* ok) {
  *ok = true;
  if (words.empty() || words[0] == "help") return helpText();
  if (words[0] == "ping") return "pong";
  SimCommand fn;
  {
    std::lock_guard<std::mutex> g(gMu);
    auto it = gCommands.find(words[0]);
    if (it == gCommands.end()) {
      *ok = false;
      return "unknown command " + words[0] + "; try help";
    }
    fn = it->second.fn;
  }
  return fn(std::vector<std::string>(words.begin() + 1, words.end()), ok);
}

bool simControlStart(const std::string& path, std::string* err) {
  simRegisterCommand("help", "help                                  this list", nullptr);
  simRegisterCommand("ping", "ping                                  answers pong", nullptr);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    *err = "control socket path too long: " + path;
    return false;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *err = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  ::unlink(path.c_str());
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 64) != 0) {
    *err = "bind " + path + ": " + std::strerror(errno);
    ::close(fd);
    return false;
  }
  {
    std::lock_guard<std::mutex> g(gMu);
    gPath = path;
  }
  std::thread(acceptLoop, fd).detach();
  return true;
}

void simControlStop() {
  std::lock_guard<std::mutex> g(gMu);
  if (!gPath.empty()) ::unlink(gPath.c_str());
  gPath.clear();
}

std::string simControlEncode(const std::vector<std::string>& words) {
  std::string out;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i) out += '\t';
    for (char c : words[i]) {
      if (c == '\\') out += "\\\\";
      else if (c == '\t') out += "\\t";
      else if (c == '\n') out += "\\n";
      else out += c;
    }
  }
  out += '\n';
  return out;
}

bool simControlDecode(const std::string& line, std::vector<std::string>* words) {
  words->clear();
  if (line.empty()) return true;
  std::string cur;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (c == '\t') {
      words->push_back(cur);
      cur.clear();
    } else if (c == '\\') {
      if (++i == line.size()) return false;
      char e = line[i];
      if (e == '\\') cur += '\\';
      else if (e == 't') cur += '\t';
      else if (e == 'n') cur += '\n';
      else return false;
    } else {
      cur += c;
    }
  }
  words->push_back(cur);
  return true;
}
