// The process runner's child start, apart from the runner's Qt side: what
// runs between vfork and exec must stay a plain sequence of system calls.

#include "core/ChildSpawn.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

int spawnChild(pid_t* pid, const char* path, char* const* argv, char* const* envp, const char* cwd,
               const int streams[3]) {
    // The sources go above 2 first so that a source that is itself 0, 1 or
    // 2 is not overwritten by an earlier dup2; these copies close at exec.
    int lifted[3] = {-1, -1, -1};
    for (int i = 0; i < 3; ++i)
        if (streams[i] >= 0)
            lifted[i] = fcntl(streams[i], F_DUPFD_CLOEXEC, 3);
    // No handler of ours may run in the child while it shares our memory.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const pid_t parent = getpid();
    volatile int childError = 0;
    const pid_t child = vfork();
    if (child == 0) {
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        for (int sig = 1; sig < NSIG; ++sig)
            if (sig != SIGKILL && sig != SIGSTOP)
                sigaction(sig, &dfl, nullptr);
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        // We may have gone before the request was made.
        if (getppid() != parent)
            _exit(127);
        int step = 0;
        for (int i = 0; i < 3 && !step; ++i) {
            if (lifted[i] >= 0)
                step = dup2(lifted[i], i) < 0 ? errno : 0;
            else
                close(i); // a bad descriptor from the caller: no stream rather than ours
        }
        if (!step && cwd && chdir(cwd) != 0)
            step = errno;
        if (!step) {
            if (syscall(SYS_close_range, 3U, ~0U, 0U) != 0)
                for (int fd = 3; fd < 1024; ++fd)
                    close(fd);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            execve(path, argv, envp);
            step = errno;
        }
        childError = step;
        _exit(127);
    }
    int error = child < 0 ? errno : childError;
    if (child > 0 && error) {
        int st = 0;
        while (waitpid(child, &st, 0) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    for (int fd : lifted)
        if (fd >= 0)
            ::close(fd);
    if (!error)
        *pid = child;
    return error;
}
