#include "KlarboxKit/Platform/Linux/SystemCallFilter.hpp"

#include "KlarboxKit/Foundation/PlatformError.hpp"

#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <initializer_list>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace klarbox {

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_X86_64;
/// The first number of another set of the same calls.
constexpr std::uint32_t foreignCalls = 0x40000000;
#elif defined(__aarch64__)
constexpr std::uint32_t architecture = AUDIT_ARCH_AARCH64;
constexpr std::uint32_t foreignCalls = ~0U;
#else
#error "Look up first how this machine's system calls are told from others."
#endif

/// Calls that neither process of a daemon ever makes.
constexpr long forbidden[] {
    // make files or change what there is
    SYS_mkdirat, SYS_mknodat, SYS_linkat, SYS_symlinkat, SYS_renameat2, SYS_fchmod, SYS_fchmodat,
        SYS_fchown, SYS_fchownat, SYS_truncate, SYS_ftruncate, SYS_fallocate, SYS_utimensat,
        SYS_setxattr, SYS_lsetxattr, SYS_fsetxattr, SYS_removexattr, SYS_lremovexattr,
        SYS_fremovexattr, SYS_copy_file_range, SYS_sendfile, SYS_splice, SYS_vmsplice, SYS_tee,
        SYS_memfd_create, SYS_io_uring_setup, SYS_io_setup, SYS_fanotify_init, SYS_quotactl,
        SYS_open_by_handle_at, SYS_ioctl,
#if defined(__x86_64__)
        SYS_mkdir, SYS_mknod, SYS_link, SYS_symlink, SYS_rename, SYS_renameat, SYS_chmod, SYS_chown,
        SYS_lchown, SYS_creat, SYS_utime, SYS_utimes, SYS_futimesat, SYS_fork, SYS_vfork,
#endif
        // start a program
        SYS_execve, SYS_execveat,
        // reach into other processes
        SYS_ptrace, SYS_process_vm_readv, SYS_process_vm_writev, SYS_process_madvise,
        SYS_process_mrelease, SYS_pidfd_getfd, SYS_kcmp, SYS_move_pages, SYS_migrate_pages,
        SYS_perf_event_open, SYS_kill, SYS_tkill, SYS_pidfd_send_signal,
        // leave for other namespaces, mounts and users
        SYS_unshare, SYS_setns, SYS_mount, SYS_umount2, SYS_move_mount, SYS_open_tree, SYS_fsopen,
        SYS_fsconfig, SYS_fsmount, SYS_fspick, SYS_mount_setattr, SYS_pivot_root, SYS_chroot,
        SYS_setresuid, SYS_setresgid, SYS_setreuid, SYS_setregid, SYS_setuid, SYS_setgid,
        SYS_setgroups, SYS_setfsuid, SYS_setfsgid, SYS_capset,
        // load code into the kernel, or wear it down
        SYS_bpf, SYS_userfaultfd, SYS_init_module, SYS_finit_module, SYS_delete_module,
        SYS_kexec_load, SYS_add_key, SYS_request_key, SYS_keyctl, SYS_personality,
};

constexpr long removing[] {
    SYS_unlinkat,
#if defined(__x86_64__)
        SYS_unlink, SYS_rmdir,
#endif
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool mayWrite = true; // sanitizers report, and try memory out by writing it to a pipe
#else
constexpr bool mayWrite = false;
#endif

/// Calls that write to the file whose descriptor comes first.
constexpr long writing[]{SYS_write, SYS_writev, SYS_pwrite64, SYS_pwritev, SYS_pwritev2};

/// The first number of calls that came after this list was made.
constexpr std::uint32_t unknownCalls = 450;

/// The low half of an argument: what these calls look at.
constexpr std::uint32_t argument(std::size_t number) {
    constexpr std::size_t lowHalf = std::endian::native == std::endian::little ? 0 : 4;
    return static_cast<std::uint32_t>(offsetof(seccomp_data, args) + 8 * number + lowHalf);
}

/// A program for the kernel that looks at each call.
class Filter {
public:
    Filter() {
        load(offsetof(seccomp_data, arch));
        add(BPF_JMP | BPF_JEQ | BPF_K, architecture, 1, 0);
        add(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS);
        load(offsetof(seccomp_data, nr));
        add(BPF_JMP | BPF_JGE | BPF_K, foreignCalls, 0, 1);
        deny(EPERM);
        // Libraries make do without what a kernel may not have yet.
        add(BPF_JMP | BPF_JGE | BPF_K, unknownCalls, 0, 1);
        deny(ENOSYS);
    }

    void forbid(long call, int code = EPERM) {
        add(BPF_JMP | BPF_JEQ | BPF_K, number(call), 0, 1);
        deny(code);
    }

    /// When an argument has any of these bits.
    void forbidIfAny(long call, std::size_t which, std::uint32_t bits) {
        add(BPF_JMP | BPF_JEQ | BPF_K, number(call), 0, 4);
        load(argument(which));
        add(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1);
        deny(EPERM);
        allow();
    }

    /// When the first argument is greater.
    void forbidAbove(long call, std::uint32_t most) {
        add(BPF_JMP | BPF_JEQ | BPF_K, number(call), 0, 4);
        load(argument(0));
        add(BPF_JMP | BPF_JGT | BPF_K, most, 0, 1);
        deny(EPERM);
        allow();
    }

    void install() {
        allow();
        const sock_fprog program{.len = static_cast<unsigned short>(steps_.size()),
                                 .filter = steps_.data()};
        if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
            throw PlatformError::posix(errno);
        }
    }

private:
    static std::uint32_t number(long call) { return static_cast<std::uint32_t>(call); }
    void add(int code, std::uint32_t value, std::uint8_t ifSo = 0, std::uint8_t ifNot = 0) {
        steps_.push_back({static_cast<std::uint16_t>(code), ifSo, ifNot, value});
    }
    void load(std::size_t offset) {
        add(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
    }
    void deny(int code) {
        add(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(code));
    }
    void allow() { add(BPF_RET | BPF_K, SECCOMP_RET_ALLOW); }

    std::vector<sock_filter> steps_;
};

} // namespace

void forbidSystemCalls(FileAccess access) {
    Filter filter;
    for (const long call : forbidden) {
        filter.forbid(call);
    }
    if (access == FileAccess::reading) {
        for (const long call : removing) {
            filter.forbid(call);
        }
    }
    constexpr std::uint32_t changing = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;
    filter.forbidIfAny(SYS_openat, 2, changing);
#if defined(__x86_64__)
    filter.forbidIfAny(SYS_open, 1, changing);
#endif
    if (!mayWrite) {
        for (const long call : writing) {
            filter.forbid(call);
        }
    }
    filter.forbidIfAny(SYS_mmap, 3, MAP_SHARED); // writing to such memory writes to the file
    filter.forbidAbove(SYS_prlimit64, 0); // the first argument is whose limits: 0 for one's own
    // A thread is no new namespace. What the newer call wants lies in memory, where a filter cannot
    // look; the library makes do with the older one where it is missing.
    constexpr std::uint32_t namespaces = CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET |
                                         CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;
    filter.forbidIfAny(SYS_clone, 0, namespaces);
    filter.forbid(SYS_clone3, ENOSYS);
    filter.install();
}

} // namespace klarbox
