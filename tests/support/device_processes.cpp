#include "device_processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace QUEX::Tandra::ProcessTesting {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        // Real processes give no notice a test can wait on; poll them at a short interval.
        std::this_thread::sleep_for(20ms);
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tandra-test.XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    path_ = mkdtemp(buffer.data()) != nullptr ? buffer.data() : "/tmp";
}

TempDir::~TempDir()
{
    if (path_ != "/tmp" && std::getenv("TANDRA_KEEP_TEST_DIRS") == nullptr) {
        std::string command = "rm -rf '" + path_ + "'";
        (void)std::system(command.c_str());
    }
}

uint16_t FreePort()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return 0;
    }
    close(fd);
    return ntohs(address.sin_port);
}

ChildProcess::ChildProcess(std::vector<std::string> argv, std::string outputPath,
                           std::map<std::string, std::string> extraEnv)
    : outputPath_(std::move(outputPath))
{
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string item = *entry;
        if (extraEnv.count(item.substr(0, item.find('='))) == 0) {
            env.push_back(item);
        }
    }
    for (const auto& [name, value] : extraEnv) {
        env.push_back(name + "=" + value);
    }
    std::vector<char*> args;
    for (std::string& arg : argv) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& item : env) {
        envp.push_back(item.data());
    }
    envp.push_back(nullptr);
    int out = open(outputPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        // A child of its own process group, so a signal meant for the test runner's group
        // does not reach it, and the test can signal it alone.
        setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(out);
    close(in);
}

ChildProcess::~ChildProcess()
{
    if (pid_ > 0 && !status_) {
        kill(pid_, SIGKILL);
        Wait(5s);
    }
}

bool ChildProcess::Running()
{
    return !Wait(0ms).has_value();
}

void ChildProcess::Signal(int signal)
{
    if (pid_ > 0 && !status_) {
        kill(pid_, signal);
    }
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds deadline)
{
    if (status_ || pid_ <= 0) {
        return status_;
    }
    int raw = 0;
    if (!WaitUntil([&]() { return waitpid(pid_, &raw, WNOHANG) == pid_; }, deadline)) {
        return std::nullopt;
    }
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_;
}

std::string TandradPath() { return TANDRA_TANDRAD_PATH; }
std::string PhotoPath() { return TANDRA_PHOTO_PATH; }
std::string CameraPath() { return TANDRA_CAMERA_PATH; }
std::string PluginPath() { return TANDRA_PLUGIN_PATH; }

Device::Device(DeviceOptions options) : options_(std::move(options))
{
    if (options_.port == 0) {
        options_.port = FreePort();
    }
    socket_ = dir_.Path() + "/tandrad.sock";
    stateDir_ = dir_.Path() + "/state";
    abilitiesDir_ = dir_.Path() + "/abilities";
    cameraOut_ = dir_.Path() + "/camera-photos";
    mkdir(abilitiesDir_.c_str(), 0700);
    mkdir(cameraOut_.c_str(), 0700);
    WriteManifests();
}

Device::~Device()
{
    if (daemon_ && daemon_->Running()) {
        daemon_->Signal(SIGTERM);
        if (!daemon_->Wait(10s)) {
            daemon_->Signal(SIGKILL);
        }
    }
    // Camera applications this daemon started and that outlived it.
    for (pid_t pid : CameraPids()) {
        kill(pid, SIGKILL);
    }
}

void Device::WriteManifests()
{
    std::ofstream photo(abilitiesDir_ + "/tandra-photo.json");
    photo << R"({"bundle":"com.tandra.photo","ability":"MainAbility","module":"entry","exec":{"path":")"
          << PhotoPath() << R"(","args":[]}})";
    for (const auto& [bundle, executable] : options_.extraApps) {
        std::ofstream app(abilitiesDir_ + "/" + bundle + ".json");
        app << R"({"bundle":")" << bundle << R"(","ability":"MainAbility","module":"entry","exec":{"path":")"
            << executable << R"(","args":[]}})";
    }
    std::ofstream camera(abilitiesDir_ + "/tandra-camera.json");
    camera << R"({"bundle":"com.tandra.camera","ability":"CameraAbility","module":"entry",)"
           << R"("action":"tandra.CameraAbility.TakePhoto","type":"tandra.CameraAbility.TakePhoto",)"
           << R"("exec":{"path":")" << CameraPath() << R"(","args":[)";
    std::vector<std::string> args = options_.cameraArgs;
    args.insert(args.end(), {"--out", cameraOut_, "--device-name", options_.name});
    for (size_t i = 0; i < args.size(); ++i) {
        camera << (i == 0 ? "" : ",") << '"' << args[i] << '"';
    }
    camera << "]}}";
}

bool Device::Start(std::string* output)
{
    std::vector<std::string> argv;
    if (!options_.runner.empty()) {
        std::istringstream words(options_.runner);
        for (std::string word; words >> word;) {
            argv.push_back(word);
        }
    }
    argv.insert(argv.end(), {TandradPath(), "--name", options_.name, "--state-dir", stateDir_, "--socket", socket_,
                             "--abilities", abilitiesDir_, "--plugin", PluginPath(), "--bind", options_.bindAddress,
                             "--port", std::to_string(options_.port), "--discovery-port",
                             std::to_string(options_.discoveryPort), "--broadcast", options_.broadcastAddress});
    for (const std::string& peer : options_.peers) {
        argv.insert(argv.end(), {"--peer", peer});
    }
    if (!options_.interfaceName.empty()) {
        argv.insert(argv.end(), {"--interface", options_.interfaceName});
    }
    if (options_.trustOnFirstUse) {
        argv.push_back("--trust-on-first-use");
    }
    argv.insert(argv.end(), options_.extraArgs.begin(), options_.extraArgs.end());
    daemon_ = std::make_unique<ChildProcess>(argv, dir_.Path() + "/tandrad.log");
    const bool ready = WaitUntil([&]() {
        return Log().find("tandrad: ready") != std::string::npos || !daemon_->Running();
    }) && daemon_->Running();
    if (!ready && output != nullptr) {
        *output = Log();
    }
    return ready;
}

std::optional<int> Device::Stop(std::chrono::milliseconds deadline)
{
    if (!daemon_) {
        return std::nullopt;
    }
    daemon_->Signal(SIGTERM);
    return daemon_->Wait(deadline);
}

void Device::Kill()
{
    if (daemon_) {
        daemon_->Signal(SIGKILL);
        daemon_->Wait(10s);
    }
}

std::string Device::Log() const
{
    return ReadFile(dir_.Path() + "/tandrad.log");
}

Device::Result Device::Photo(const std::vector<std::string>& args, std::chrono::milliseconds deadline)
{
    std::unique_ptr<ChildProcess> child = StartPhoto(args);
    Result result;
    std::optional<int> status = child->Wait(deadline);
    result.status = status ? *status : -1;
    result.output = child->Output();
    return result;
}

std::unique_ptr<ChildProcess> Device::StartPhoto(const std::vector<std::string>& args)
{
    std::vector<std::string> argv;
    if (!options_.runner.empty()) {
        std::istringstream words(options_.runner);
        for (std::string word; words >> word;) {
            argv.push_back(word);
        }
    }
    argv.insert(argv.end(), {PhotoPath(), "--socket", socket_});
    argv.insert(argv.end(), args.begin(), args.end());
    return std::make_unique<ChildProcess>(argv, dir_.Path() + "/photo-" + std::to_string(++photoRuns_) + ".out");
}

std::vector<pid_t> Device::CameraPids() const
{
    std::vector<pid_t> pids;
    const std::string log = Log();
    const std::string marker = "started com.tandra.camera/CameraAbility as pid ";
    for (size_t at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
        pids.push_back(static_cast<pid_t>(std::atoi(log.c_str() + at + marker.size())));
    }
    return pids;
}

TwoDevices::TwoDevices(std::vector<std::string> cameraArgs)
{
    DeviceOptions a;
    a.name = "A";
    a.port = FreePort();
    DeviceOptions b;
    b.name = "B";
    b.port = FreePort();
    b.cameraArgs = std::move(cameraArgs);
    a.peers = {"127.0.0.1:" + std::to_string(b.port)};
    b.peers = {"127.0.0.1:" + std::to_string(a.port)};
    a_ = std::make_unique<Device>(a);
    b_ = std::make_unique<Device>(b);
}

bool TwoDevices::Start(std::string* why)
{
    if (!a_->Start(why) || !b_->Start(why)) {
        return false;
    }
    const bool linked = AwaitCamera(*a_, "B");
    if (!linked) {
        *why = "A never listed B as linked with a camera:\n" + a_->Photo({"devices"}).output + "\nA's log:\n" +
               a_->Log() + "\nB's log:\n" + b_->Log();
    }
    return linked;
}

bool AwaitCamera(Device& from, const std::string& name, std::chrono::milliseconds deadline)
{
    int inRow = 0;
    return WaitUntil([&]() {
        Device::Result list = from.Photo({"devices", "--json"});
        const size_t at = list.output.find("\"name\":\"" + name + "\"");
        const bool ok = at != std::string::npos &&
                        list.output.find("\"camera\":true", at) < list.output.find('\n', at);
        inRow = ok ? inRow + 1 : 0;
        return inRow >= 5;
    }, deadline);
}

ProcessFigures FiguresOf(pid_t pid)
{
    ProcessFigures figures;
    const std::string base = "/proc/" + std::to_string(pid);
    if (DIR* dir = opendir((base + "/fd").c_str())) {
        while (dirent* entry = readdir(dir)) {
            figures.fds += entry->d_name[0] != '.' ? 1 : 0;
        }
        closedir(dir);
    }
    std::istringstream status(ReadFile(base + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Threads:", 0) == 0) {
            figures.threads = std::strtoul(line.c_str() + 8, nullptr, 10);
        } else if (line.rfind("VmRSS:", 0) == 0) {
            figures.rssKiB = std::strtoul(line.c_str() + 6, nullptr, 10);
        }
    }
    std::istringstream children(ReadFile(base + "/task/" + std::to_string(pid) + "/children"));
    for (std::string child; children >> child;) {
        ++figures.children;
    }
    return figures;
}

}  // namespace QUEX::Tandra::ProcessTesting
