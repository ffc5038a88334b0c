// The simulator's control interface: a Unix-domain socket; a client sends one request
// line (the words, each escaped, separated by tabs) and reads one reply, "OK" or "ERR"
// on its first line and the reply text after it, until the server closes.  vodsimctl is
// its client.
#pragma once

#include <functional>
#include <string>
#include <vector>

// A control command gets its words (after the command name) and returns its reply text;
// *ok = false makes vodsimctl print the reply on stderr and exit non-zero.  Commands run on
// the control thread; they take SimNode::lock() themselves when they touch state.
// (Each request gets a thread of its own, so a command that waits, such as
// "fault wait-held", does not hold up the others.)
using SimCommand = std::function<std::string(const std::vector<std::string>& args, bool* ok)>;
void simRegisterCommand(const std::string& name, const std::string& usage, SimCommand fn);

// Starts the control thread listening on `path` (an old socket file is replaced).
// False with *err set when the socket cannot be bound.
bool simControlStart(const std::string& path, std::string* err);
// Removes the socket file; called on shutdown.
void simControlStop();

// Runs one request as the control thread would; for tests inside the process.
std::string simControlRun(const std::vector<std::string>& words, bool* ok);

// The wire form of one request: words escaped ('\\' '\t' '\n' as \\ \t \n) and joined by
// tabs, ending in a newline.  Shared by the server and vodsimctl.
std::string simControlEncode(const std::vector<std::string>& words);
bool simControlDecode(const std::string& line, std::vector<std::string>* words);
