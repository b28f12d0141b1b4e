// kp-failing-calls NUMBER REPORT AFTER PROGRAM [ARGUMENTS]
//
// Becomes PROGRAM, whose system calls for files are counted from the first one on that names a path
// with AFTER in it; the one with that NUMBER fails, once. At the end of the program REPORT gets a
// line: how many there were, and which one has failed with what, "-" when there were fewer.
//
// The kernel asks a supervisor about each call (seccomp's user notification), so that no call is
// missed, whatever library makes it; the supervisor is no child of the program's.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Call {
    int number;
    const char* name;
    int path;   // argument with the path, -1: none
    int error;  // what it fails with
};

constexpr Call kCalls[] = {
    {SYS_openat, "open", 1, EMFILE},
    {SYS_write, "write", -1, ENOSPC},
    {SYS_pwrite64, "pwrite", -1, ENOSPC},
    {SYS_fsync, "fsync", -1, EIO},
    {SYS_fdatasync, "fdatasync", -1, EIO},
    {SYS_ftruncate, "ftruncate", -1, ENOSPC},
    {SYS_fallocate, "fallocate", -1, ENOSPC},
    {SYS_unlinkat, "unlink", 1, EACCES},
    {SYS_mkdirat, "mkdir", 1, ENOSPC},
    {SYS_newfstatat, "stat", 1, ENOMEM},
    {SYS_pread64, "pread", -1, EIO},
    {SYS_read, "read", -1, EIO},
    {SYS_mmap, "mmap", -1, ENOMEM},
    {SYS_getdents64, "getdents", -1, EIO},
#ifdef SYS_open
    {SYS_open, "open", 0, EMFILE},
    {SYS_rename, "rename", 0, ENOSPC},
    {SYS_unlink, "unlink", 0, EACCES},
    {SYS_mkdir, "mkdir", 0, ENOSPC},
    {SYS_link, "link", 0, ENOSPC},
    {SYS_stat, "stat", 0, ENOMEM},
    {SYS_fstat, "fstat", -1, EIO},
    {SYS_lstat, "stat", 0, ENOMEM},
#endif
    {SYS_renameat2, "rename", 1, ENOSPC},
    {SYS_linkat, "link", 1, ENOSPC},
    {SYS_fcntl, "fcntl", -1, ENOLCK},
};

const Call* callOf(int number) {
    for (const Call& call : kCalls) {
        if (call.number == number)
            return &call;
    }
    return nullptr;
}

// The kernel's filter: asks about our calls, and lets all others pass.
int install() {
    std::vector<sock_filter> program = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0)};
    for (const Call& call : kCalls) {
        program.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call.number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog whole = {static_cast<unsigned short>(program.size()), program.data()};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    return static_cast<int>(
        ::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &whole));
}

// One descriptor over a socket; @p descriptor is what is sent, or -1 to receive it.
int pass(int socket, int descriptor) {
    char byte = 0;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec data = {&byte, 1};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (descriptor < 0 && ::recvmsg(socket, &message, 0) != 1)
        return -1;
    cmsghdr* const head = CMSG_FIRSTHDR(&message);
    if (head == nullptr)
        return -1;
    if (descriptor < 0) {
        std::memcpy(&descriptor, CMSG_DATA(head), sizeof descriptor);
        return descriptor;
    }
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
    return ::sendmsg(socket, &message, 0) == 1 ? 0 : -1;
}

std::string pathOf(const seccomp_notif& asked, const Call& call) {
    char text[4096] = "";
    if (call.path < 0)
        return "";
    iovec ours = {text, sizeof text - 1};
    iovec theirs = {reinterpret_cast<void*>(asked.data.args[call.path]), sizeof text - 1};
    // What follows the path may not be readable as far as that.
    for (; theirs.iov_len > 0; theirs.iov_len /= 2) {
        if (::process_vm_readv(static_cast<pid_t>(asked.pid), &ours, 1, &theirs, 1, 0) > 0)
            return text;
    }
    return "";
}

// Whether the call is one for files: memory without a file is none, nor are flags of descriptors.
bool isCounted(const seccomp_notif& asked) {
    if (asked.data.nr == SYS_mmap)
        return static_cast<int>(asked.data.args[4]) >= 0;
    if (asked.data.nr == SYS_fcntl)
        return asked.data.args[1] == F_SETLK || asked.data.args[1] == F_OFD_SETLK;
    if (asked.data.nr == SYS_write || asked.data.nr == SYS_read)
        return asked.data.args[0] > 2;  // what the program says is not its files
    return true;
}

[[noreturn]] void supervise(int listener, long number, const char* report, const char* after) {
    long count = 0;
    bool hasBegun = false;
    std::string failed = "-";
    for (;;) {
        pollfd wait = {listener, POLLIN, 0};
        ::poll(&wait, 1, -1);
        if ((wait.revents & POLLIN) == 0 && wait.revents != 0)
            break;  // nobody is left who could ask
        seccomp_notif asked = {};
        if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &asked) != 0) {
            if (errno == EINTR || errno == ENOENT)
                continue;  // ENOENT: whoever asked has been killed
            break;
        }
        seccomp_notif_resp answer = {};
        answer.id = asked.id;
        answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        const Call& call = *callOf(asked.data.nr);
        const std::string path = pathOf(asked, call);
        hasBegun = hasBegun || path.find(after) != std::string::npos;
        if (hasBegun && isCounted(asked) && ++count == number) {
            failed = std::string(call.name) + " " + path;
            answer.flags = 0;
            answer.error = -call.error;
        }
        ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }
    const std::string beside = std::string(report) + ".part";
    if (std::FILE* file = std::fopen(beside.c_str(), "w")) {
        std::fprintf(file, "%ld %s\n", count, failed.c_str());
        std::fclose(file);
        std::rename(beside.c_str(), report);
    }
    ::_exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    int ends[2];
    if (argc < 5 || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        std::fprintf(stderr, "kp-failing-calls NUMBER REPORT AFTER PROGRAM [ARGUMENTS]\n");
        return 125;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        if (::fork() != 0)
            ::_exit(0);
        ::setsid();
        for (int descriptor = 0; descriptor <= 2; ++descriptor)
            ::dup2(::open("/dev/null", O_RDWR | O_CLOEXEC), descriptor);
        // Whoever waits for the end of what was inherited shall not wait for us.
        for (int descriptor = 3; descriptor < 1024; ++descriptor) {
            if (descriptor != ends[1])
                ::close(descriptor);
        }
        const int listener = pass(ends[1], -1);
        if (listener < 0)
            ::_exit(1);  // the program has ended before it began
        supervise(listener, std::atol(argv[1]), argv[2], argv[3]);
    }
    ::waitpid(child, nullptr, 0);
    const int listener = install();
    if (listener < 0 || pass(ends[0], listener) != 0) {
        std::perror("kp-failing-calls");
        return 125;
    }
    ::close(listener);
    ::execv(argv[4], argv + 4);
    std::perror(argv[4]);
    return 127;
}
