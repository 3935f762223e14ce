// Preparing the applications' socket path: its folder is created private to this user (0700),
// and a socket file left by a daemon that died is replaced, but never one a running daemon
// still answers on.
// Thread-safety: plain functions; call before serving, on one thread.
#pragma once

#include <string>

namespace QUEX {
namespace Tandra {

// True when the path is ready to bind; otherwise *error says what is wrong and what to do.
bool PrepareSocketPath(const std::string& socketPath, std::string* error);

// Creates a folder and its parents; the last one gets the mode. False with *error otherwise.
bool MakeFolder(const std::string& path, unsigned mode, std::string* error);

}  // namespace Tandra
}  // namespace QUEX
