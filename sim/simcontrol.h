// The simulator's control interface: a Unix-domain socket, one request per line (words
// separated by tabs), one reply.  vodsimctl is its client.
#pragma once

#include <functional>
#include <string>
#include <vector>

// A control command gets its words (after the command name) and returns its reply text;
// *ok = false makes vodsimctl print the reply on stderr and exit non-zero.  Commands run on
// the control thread; they take SimNode::lock() themselves when they touch state.
using SimCommand = std::function<std::string(const std::vector<std::string>& args, bool* ok)>;
void simRegisterCommand(const std::string& name, const std::string& usage, SimCommand fn);

// Starts the control thread listening on `path` (an old socket file is replaced).
// False with *err set when the socket cannot be bound.
bool simControlStart(const std::string& path, std::string* err);
// Removes the socket file; called on shutdown.
void simControlStop();

// Runs one request as the control thread would; for tests inside the process.
std::string simControlRun(const std::vector<std::string>& words, bool* ok);
