// First process of the emulated board: mounts, network, clock, then one program; reports how it ended, sends
// back the files that it left, and stops the machine.
//
// What the run brings along: /command holds the program and its arguments, each ended by a zero;
// /environment holds lines NAME=VALUE. The program's output goes to the second serial port untouched. On the
// console, after the kernel's messages:
//   RESULT exit N | RESULT signal N
//   FILES
//   a tar archive of /out
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/klog.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr char kConsole[] = "/dev/ttyS0";
constexpr char kOutput[] = "/dev/ttyS1";

void Complain(const std::string& what) { std::printf("init: %s: %s\n", what.c_str(), std::strerror(errno)); }

void Mount(const char* type, const char* directory, const char* options = "") {
    ::mkdir(directory, 0755);
    if (::mount(type, directory, type, 0, options) != 0) Complain(std::string("mount ") + directory);
}

void MountAll() {
    Mount("proc", "/proc");
    Mount("sysfs", "/sys");
    Mount("devtmpfs", "/dev");
    Mount("devpts", "/dev/pts");
    Mount("mqueue", "/dev/mqueue");
    Mount("tmpfs", "/dev/shm", "mode=1777");
    Mount("tmpfs", "/tmp", "mode=1777");
    Mount("tmpfs", "/out");
}

/// One request to the kernel's routing socket, built attribute by attribute.
class LinkRequest {
  public:
    LinkRequest() {
        Header()->nlmsg_type = RTM_NEWLINK;
        Header()->nlmsg_flags = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK;
        m_Length = NLMSG_LENGTH(sizeof(ifinfomsg));
    }

    void Add(unsigned short type, const void* data, size_t size) { Close(Open(type, data, size)); }
    /// Opens an attribute that holds others behind `data`.
    size_t Open(unsigned short type, const void* data = nullptr, size_t size = 0) {
        const size_t at = m_Length;
        reinterpret_cast<rtattr*>(m_Bytes + at)->rta_type = type;
        m_Length += RTA_LENGTH(0);
        if (size > 0) std::memcpy(m_Bytes + m_Length, data, size);
        m_Length += RTA_ALIGN(size);
        reinterpret_cast<rtattr*>(m_Bytes + at)->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
        return at;
    }
    void Close(size_t at) {
        auto* const attribute = reinterpret_cast<rtattr*>(m_Bytes + at);
        if (m_Length - at > RTA_ALIGN(attribute->rta_len))
            attribute->rta_len = static_cast<unsigned short>(m_Length - at);
    }

    /// 0, or the kernel's errno.
    int Send() {
        Header()->nlmsg_len = static_cast<uint32_t>(m_Length);
        const int socket = ::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
        alignas(nlmsghdr) char answer[512];
        const bool answered =
            ::send(socket, m_Bytes, m_Length, 0) > 0 && ::recv(socket, answer, sizeof answer, 0) > 0;
        ::close(socket);
        return answered ? -static_cast<nlmsgerr*>(NLMSG_DATA(answer))->error : errno;
    }

  private:
    nlmsghdr* Header() { return reinterpret_cast<nlmsghdr*>(m_Bytes); }

    alignas(nlmsghdr) char m_Bytes[1024] = {};
    size_t m_Length;
};

void AddNameAndAddress(LinkRequest& request, const char* name, unsigned char last) {
    const unsigned char address[] = {2, 0, 0, 0, 0, last};
    request.Add(IFLA_IFNAME, name, std::strlen(name) + 1);
    request.Add(IFLA_ADDRESS, address, sizeof address);
}

/// Two links joined by a cable, with the hardware addresses 02:00:00:00:00:01 and :02.
void MakeVethPair(const char* name, const char* peer) {
    LinkRequest request;
    AddNameAndAddress(request, name, 1);
    const size_t info = request.Open(IFLA_LINKINFO);
    request.Add(IFLA_INFO_KIND, "veth", 4);
    const size_t data = request.Open(IFLA_INFO_DATA);
    const ifinfomsg empty{};
    const size_t peer_at = request.Open(VETH_INFO_PEER, &empty, sizeof empty);
    AddNameAndAddress(request, peer, 2);
    request.Close(peer_at);
    request.Close(data);
    request.Close(info);
    errno = request.Send();
    if (errno != 0) Complain("veth pair");
}

void SetUp(const char* name) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (::ioctl(socket, SIOCGIFFLAGS, &request) != 0) Complain(name);
    request.ifr_flags |= IFF_UP;
    if (::ioctl(socket, SIOCSIFFLAGS, &request) != 0) Complain(name);
    ::close(socket);
}

/// The board has no clock chip; the host passes its time.
void SetClock() {
    const char* const seconds = std::getenv("KOVA_BOARD_TIME");
    const timespec now{seconds == nullptr ? 0 : static_cast<time_t>(std::strtol(seconds, nullptr, 10)), 0};
    if (::clock_settime(CLOCK_REALTIME, &now) != 0) Complain("clock");
}

void SetEnvironment() {
    ::clearenv();
    ::setenv("PATH", "/bin", 1);
    ::setenv("HOME", "/tmp", 1);
    ::setenv("KOVA_OWN_MACHINE", "1", 1);
    std::ifstream file("/environment");
    for (std::string line; std::getline(file, line);) {
        const size_t end = line.find('=');
        if (end != std::string::npos) ::setenv(line.substr(0, end).c_str(), line.c_str() + end + 1, 1);
    }
}

/// Opens a serial port that passes bytes as they are.
int OpenPort(const char* name) {
    const int port = ::open(name, O_WRONLY | O_NOCTTY | O_CLOEXEC);
    termios settings;
    if (port < 0 || ::tcgetattr(port, &settings) != 0) {
        Complain(name);
        return port;
    }
    ::cfmakeraw(&settings);
    ::tcsetattr(port, TCSANOW, &settings);
    return port;
}

[[noreturn]] void RunProgram(int output) {
    std::ifstream file("/command", std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::vector<char*> arguments;
    for (size_t at = 0; at < bytes.size(); at += std::strlen(bytes.c_str() + at) + 1) {
        arguments.push_back(const_cast<char*>(bytes.c_str() + at));
    }
    arguments.push_back(nullptr);

    ::setsid();
    ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    if (::chdir("/tmp") == 0) ::execv(arguments[0], arguments.data());
    ::dprintf(STDERR_FILENO, "init: %s: %s\n", arguments[0], std::strerror(errno));
    ::_exit(127);
}

/// Waits for `program` and adopts orphans meanwhile, as a first process does. The wait status.
int WaitFor(pid_t program) {
    int status = 0;
    for (pid_t ended = 0; ended != program;) {
        ended = ::wait(&status);
        if (ended < 0 && errno != EINTR) return W_EXITCODE(127, 0);
    }
    return status;
}

void SendFiles(int console) {
    ::dprintf(console, "FILES\n");
    const pid_t tar = ::fork();
    if (tar == 0) {
        ::dup2(console, STDOUT_FILENO);
        ::execl("/bin/tar", "tar", "-cf", "-", "-C", "/out", ".", nullptr);
        ::_exit(127);
    }
    WaitFor(tar);
}

void KeepKernelQuiet() {
    constexpr int kConsoleOff = 6;
    ::klogctl(kConsoleOff, nullptr, 0);
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    MountAll();
    MakeVethPair("kv0", "kv1");
    for (const char* name : {"lo", "kv0", "kv1", "dummy0"}) SetUp(name);
    if (::sethostname("board", 5) != 0) Complain("host name");
    SetEnvironment();
    SetClock();

    const int output = OpenPort(kOutput);
    const pid_t program = ::fork();
    if (program == 0) RunProgram(output);
    const int status = WaitFor(program);
    ::kill(-1, SIGKILL);
    ::tcdrain(output);

    KeepKernelQuiet();
    const int console = OpenPort(kConsole);
    if (WIFSIGNALED(status)) {
        ::dprintf(console, "\nRESULT signal %d\n", WTERMSIG(status));
    } else {
        ::dprintf(console, "\nRESULT exit %d\n", WEXITSTATUS(status));
    }
    SendFiles(console);
    ::tcdrain(console);
    // There is no switch to turn the board off: the emulator ends at a reboot.
    ::reboot(RB_AUTOBOOT);
    for (;;) ::pause();
}
