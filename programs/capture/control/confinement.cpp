#include "control/confinement.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kp::capture {

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
constexpr std::uint32_t kFirstOfX32 = 0x40000000;  // the same calls under other numbers
#elif defined(__aarch64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
constexpr std::uint32_t kFirstOfX32 = 0xFFFFFFFF;
#else
constexpr std::uint32_t kArchitecture = 0;  // none that we know
constexpr std::uint32_t kFirstOfX32 = 0xFFFFFFFF;
#endif

constexpr std::uint32_t kRefused[] = {
#if !defined(__SANITIZE_ADDRESS__)  // Whose search for leaks traces its own process.
    SYS_ptrace,
#endif
    SYS_execve,
    SYS_execveat,

    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_setuid,
    SYS_setgid,
    SYS_setreuid,
    SYS_setregid,
    SYS_setresuid,
    SYS_setresgid,
    SYS_setfsuid,
    SYS_setfsgid,
    SYS_setgroups,
    SYS_unshare,
    SYS_setns,
    SYS_mount,
    SYS_umount2,
    SYS_pivot_root,
    SYS_chroot,
    SYS_open_by_handle_at,
    SYS_init_module,
    SYS_finit_module,
    SYS_delete_module,
    SYS_kexec_load,
    SYS_bpf,
    SYS_perf_event_open,
    SYS_userfaultfd,
    SYS_io_uring_setup,
    SYS_add_key,
    SYS_request_key,
    SYS_keyctl,
    SYS_settimeofday,
    SYS_clock_settime,
    SYS_adjtimex,
    SYS_clock_adjtime,
    SYS_reboot,
    SYS_swapon,
    SYS_swapoff,
    SYS_acct,
    SYS_syslog,
    SYS_personality,
    SYS_mknodat,
};
constexpr std::size_t kRefusedCount = sizeof kRefused / sizeof kRefused[0];

struct Capabilities {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};

    bool read() { return ::syscall(SYS_capget, &header, data) == 0; }
    bool write() { return ::syscall(SYS_capset, &header, data) == 0; }
    bool has(unsigned number) const {
        return (data[number / 32].permitted >> number % 32 & 1) != 0;
    }
};

// Takes away all capabilities but those of the mask, those above 31 included.
bool keepOnly(std::uint32_t mask) {
    // The bounding set needs a right of its own; without it nothing of it can be got anyway.
    for (int number = 0; ::prctl(PR_CAPBSET_READ, number, 0, 0, 0) >= 0; ++number) {
        if (number >= 32 || (mask >> number & 1) == 0)
            ::prctl(PR_CAPBSET_DROP, number, 0, 0, 0);
    }
    ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    Capabilities own;
    if (!own.read())
        return false;
    for (std::size_t i = 0; i < _LINUX_CAPABILITY_U32S_3; ++i) {
        own.data[i].permitted &= i == 0 ? mask : 0;
        own.data[i].effective = own.data[i].permitted;
        own.data[i].inheritable = 0;
    }
    return own.write();
}

// Whether a directory can be written to without the right to pass over its permissions.
bool isOurs(const std::string& directory) {
    Capabilities before;
    if (!before.read() || !before.has(CAP_DAC_OVERRIDE))
        return true;
    Capabilities without = before;
    const std::uint32_t over = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
    without.data[0].effective &= ~over;
    if (!without.write())
        return false;
    const bool isWritable =
        ::faccessat(AT_FDCWD, directory.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) == 0;
    before.write();
    return isWritable;
}

bool refuseCalls() {
    if (kArchitecture == 0) {
        errno = ENOSYS;
        return false;
    }
    sock_filter filter[kRefusedCount + 6];
    std::size_t size = 0;
    const auto load = [](std::size_t offset) {
        return sock_filter(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset)));
    };
    // Where each of the tests goes when it fits: to the last instruction, which refuses.
    const auto toLast = [&] { return static_cast<std::uint8_t>(kRefusedCount + 4 - size); };
    filter[size++] = load(offsetof(seccomp_data, arch));
    filter[size] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 0, toLast());
    ++size;
    filter[size++] = load(offsetof(seccomp_data, nr));
    filter[size] = BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kFirstOfX32, toLast(), 0);
    ++size;
    for (const std::uint32_t number : kRefused) {
        filter[size] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, toLast(), 0);
        ++size;
    }
    filter[size++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    filter[size++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM);
    const sock_fprog program{static_cast<unsigned short>(size), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

std::string confine(bool watchesDevice, const std::vector<std::string>& writable) {
    std::uint32_t mask = watchesDevice ? 1U << CAP_NET_RAW : 0;
    bool areOurs = true;
    for (const std::string& directory : writable)
        areOurs = areOurs && isOurs(directory);
    if (!areOurs)
        mask |= 1U << CAP_DAC_OVERRIDE;
    std::string text = "confined: ";
    if (!keepOnly(mask)) {
        text += std::string("the rights could not be given up (") + std::strerror(errno) + ")";
    } else {
        Capabilities left;
        left.read();
        text += std::string("rights left:") + (left.has(CAP_NET_RAW) ? " CAP_NET_RAW" : "") +
                (left.has(CAP_DAC_OVERRIDE) ? " CAP_DAC_OVERRIDE, for directories of others" : "") +
                (left.data[0].permitted == 0 ? " none" : "");
    }
    const bool isFiltered = refuseCalls();
    text += isFiltered ? "; no other programs, users, mounts, traces"
                       : std::string("; calls of the system are not limited (") +
                             std::strerror(errno) + ")";
    return text;
}

}  // namespace kp::capture
