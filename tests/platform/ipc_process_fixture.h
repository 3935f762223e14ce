// Helpers of the cross-process IPC tests: a temporary socket folder, the helper process
// started by posix_spawn and ended by pid, and counts of this process's descriptors and threads.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace Vex::IpcTest {

inline size_t CountEntries(const char* folder)
{
    size_t count = 0;
    if (DIR* dir = opendir(folder)) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

inline size_t OpenFdCount()
{
    return CountEntries("/proc/self/fd");
}

// Threads of this process other than the IPC worker pool's (which grows on demand up to its
// fixed cap and then stays).
inline size_t ThreadCountOutsidePool(size_t* poolThreads)
{
    size_t count = 0;
    *poolThreads = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') {
                continue;
            }
            std::string comm = std::string("/proc/self/task/") + entry->d_name + "/comm";
            char name[32] = {};
            int fd = open(comm.c_str(), O_RDONLY | O_CLOEXEC);
            ssize_t n = fd >= 0 ? read(fd, name, sizeof(name) - 1) : 0;
            if (fd >= 0) {
                close(fd);
            }
            bool pool = n > 0 && std::string(name).rfind("VexIpcWorker", 0) == 0;
            (pool ? *poolThreads : count) += 1;
        }
        closedir(dir);
    }
    return count;
}

class TempFolder {
public:
    TempFolder()
    {
        char pattern[] = "/tmp/vex-ipc-XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~TempFolder()
    {
        unlink(Socket().c_str());
        rmdir(path_.c_str());
    }
    std::string Socket() const { return path_ + "/ipc.sock"; }

private:
    std::string path_;
};

// A helper process; killed (SIGKILL) and reaped when it goes out of scope.
class HelperProcess {
public:
    // With readyPipe, the child gets the pipe's write end as descriptor 3.
    HelperProcess(const std::vector<std::string>& args, bool readyPipe = false)
    {
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(IPC_TEST_HELPER));
        for (const auto& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        int fds[2] = {-1, -1};
        if (readyPipe && pipe2(fds, O_CLOEXEC) == 0) {
            posix_spawn_file_actions_adddup2(&actions, fds[1], 3);
            ready_ = fds[0];
        }
        if (posix_spawn(&pid_, IPC_TEST_HELPER, &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        if (fds[1] >= 0) {
            close(fds[1]);
        }
    }
    ~HelperProcess()
    {
        Kill();
        if (ready_ >= 0) {
            close(ready_);
        }
    }
    pid_t Pid() const { return pid_; }
    // True once the helper wrote its ready byte.
    bool WaitReady(std::chrono::milliseconds timeout)
    {
        pollfd waiter{ready_, POLLIN, 0};
        char byte = 0;
        return poll(&waiter, 1, static_cast<int>(timeout.count())) == 1 && read(ready_, &byte, 1) == 1;
    }
    void Kill()
    {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            Wait(std::chrono::seconds(10));
        }
    }
    // The exit status once the process ended within the timeout, -1 otherwise.
    int Wait(std::chrono::milliseconds timeout)
    {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        while (!reaped_) {
            pid_t done = waitpid(pid_, &status, WNOHANG);
            if (done == pid_) {
                reaped_ = true;
                exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                return -1;
            }
            // The process descriptor becomes readable when the child exits.
            int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
            if (pidFd < 0) {
                return -1;
            }
            pollfd waiter{pidFd, POLLIN, 0};
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            poll(&waiter, 1, static_cast<int>(left.count()) + 1);
            close(pidFd);
        }
        return exit_;
    }

private:
    pid_t pid_ = -1;
    int ready_ = -1;
    bool reaped_ = false;
    int exit_ = -1;
};

}  // namespace Vex::IpcTest
