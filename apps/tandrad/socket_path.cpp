#include "socket_path.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace QUEX {
namespace Tandra {

bool MakeFolder(const std::string& path, unsigned mode, std::string* error)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string parent = path.substr(0, slash);
        if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) {
            *error = "cannot create folder " + parent + ": " + strerror(errno);
            return false;
        }
    }
    if (mkdir(path.c_str(), mode) != 0) {
        if (errno != EEXIST) {
            *error = "cannot create folder " + path + ": " + strerror(errno);
            return false;
        }
    } else {
        chmod(path.c_str(), mode);  // not narrowed by the umask
    }
    if (access(path.c_str(), W_OK | X_OK) != 0) {
        *error = "folder " + path + " is not writable by this user: choose another with the option, or fix its "
                 "owner and mode";
        return false;
    }
    return true;
}

bool PrepareSocketPath(const std::string& socketPath, std::string* error)
{
    sockaddr_un address{};
    if (socketPath.size() >= sizeof(address.sun_path)) {
        *error = "socket path " + socketPath + " is longer than " + std::to_string(sizeof(address.sun_path) - 1) +
                 " bytes: pass a shorter --socket";
        return false;
    }
    const size_t slash = socketPath.find_last_of('/');
    if (slash != std::string::npos && slash > 0 &&
        !MakeFolder(socketPath.substr(0, slash), 0700, error)) {
        *error = "socket folder: " + *error + " (or pass --socket)";
        return false;
    }
    struct stat info {};
    if (lstat(socketPath.c_str(), &info) != 0) {
        return true;
    }
    if (!S_ISSOCK(info.st_mode)) {
        *error = socketPath + " exists and is not a socket: remove it or pass another --socket";
        return false;
    }
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        *error = std::string("cannot create a socket: ") + strerror(errno);
        return false;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size());
    const bool answered = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    if (answered) {
        *error = "another tandrad is already serving " + socketPath +
                 ": stop it first, or give this one its own --socket and --state-dir";
        return false;
    }
    if (unlink(socketPath.c_str()) != 0) {
        *error = "cannot replace the stale socket " + socketPath + ": " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace Tandra
}  // namespace QUEX
