// The first process of the emulated board. It mounts what programs expect, and then runs the jobs that the host names on
// the serial line, one after the other, until the host writes "stop". README.md describes the jobs.
//
// The shared folder /host holds the settings, each in a file:
//   epoch    the time, because the board has no clock
//   tree     the path of the source tree, which is the same as on the host
//   files    the file system for /var/tmp
//   owner    the user who owns it if it has no owners of its own
//   address  the address in the network, if the board is to have one
//   shell    makes it open a console; empty

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

// Ends the machine, or in a child the job. The reason is on the console, or among the errors of the job.
static void Fail(const char* what)
{
    dprintf(STDERR_FILENO, "board: %s: %s\n", what, strerror(errno));
    if (getpid() == 1) {
        reboot(RB_POWER_OFF);
    }
    _exit(126);
}

static char* Format(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char* text;
    if (vasprintf(&text, format, arguments) == -1) {
        Fail("vasprintf");
    }
    va_end(arguments);
    return text;
}

// Reads a file of the shared folder; a NUL follows the text.
static char* Read(const char* path, size_t* size)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (file == -1 || fstat(file, &status) != 0) {
        Fail(path);
    }
    *size = (size_t)status.st_size;
    char* const text = calloc(1, *size + 1);
    if (text == NULL || read(file, text, *size) != (ssize_t)*size) {
        Fail(path);
    }
    close(file);
    return text;
}

static char* ReadText(const char* path)
{
    size_t size;
    return Read(path, &size);
}

static int Exists(const char* path)
{
    return access(path, F_OK) == 0;
}

// ---- Start

static void Run(const char* command)
{
    if (system(command) != 0) {
        Fail(command);
    }
}

static void Mount(const char* source, const char* target, const char* type, unsigned long flags, const char* options)
{
    if (mkdir(target, 0755) != 0 && errno != EEXIST) {
        Fail(target);
    }
    if (mount(source, target, type, flags, options) != 0) {
        Fail(target);
    }
}

static void MakeParents(const char* path)
{
    for (const char* slash = strchr(path + 1, '/'); slash != NULL; slash = strchr(slash + 1, '/')) {
        char* const parent = strndup(path, (size_t)(slash - path));
        if (mkdir(parent, 0755) != 0 && errno != EEXIST) {
            Fail(parent);
        }
        free(parent);
    }
}

static void SetClock(void)
{
    const struct timespec now = {atoll(ReadText("/host/epoch")), 0};
    if (clock_settime(CLOCK_REALTIME, &now) != 0) {
        Fail("clock_settime");
    }
}

static void MountFiles(const char* type, const char* target)
{
    if (strcmp(type, "ubifs") == 0) {
        // The emulated flash is in the kernel's memory, so it is empty at each start.
        Run("ubiattach -m 0 /dev/ubi_ctrl >/dev/null && ubimkvol /dev/ubi0 -N files -m >/dev/null");
        Mount("ubi0:files", target, type, 0, "");
    } else if (strcmp(type, "vfat") == 0) {
        const char* const owner = ReadText("/host/owner");
        Mount("/dev/vdc", target, type, 0, Format("umask=0,uid=%s,gid=%s", owner, owner));
    } else if (strcmp(type, "tmpfs") == 0) {
        Mount("none", target, type, 0, "size=512m");
    } else {
        Mount("/dev/vdc", target, type, 0, "");
    }
    (void)chmod(target, 01777);  // vfat has no modes
}

static void MountAll(void)
{
    const char* const kPlain = "trans=virtio,version=9p2000.L,msize=131072";
    const char* const kCached = "trans=virtio,version=9p2000.L,msize=131072,cache=loose";
    Mount("none", "/proc", "proc", 0, "");
    Mount("none", "/sys", "sysfs", 0, "");
    Mount("none", "/dev", "devtmpfs", 0, "");
    Mount("none", "/dev/pts", "devpts", 0, "");
    Mount("none", "/tmp", "tmpfs", 0, "mode=1777");
    Mount("host", "/host", "9p", 0, kPlain);
    Mount("libraries", "/lib", "9p", MS_RDONLY, kCached);
    const char* const tree = ReadText("/host/tree");
    MakeParents(tree);
    Mount("tree", tree, "9p", MS_RDONLY, kCached);
    MountFiles(ReadText("/host/files"), "/var/tmp");
    // The second file system is a disk, too: memory has no room for files of 3 GiB.
    Mount("/dev/vdb", "/dev/shm", "ext4", 0, "");
    if (chmod("/dev/shm", 01777) != 0) {
        Fail("/dev/shm");
    }
}

static void StartNetwork(void)
{
    const char kName[] = "board";
    if (sethostname(kName, sizeof kName - 1) != 0) {
        Fail("sethostname");
    }
    Run("ip link set lo up");
    if (Exists("/host/address")) {
        Run(Format("ip address add %s dev eth0 && ip link set eth0 up", ReadText("/host/address")));
    }
}

// ---- Jobs

// Returns the path of a file of the job.
static char* Of(const char* job, const char* name)
{
    return Format("/host/%s/%s", job, name);
}

// A list is texts that each end in a NUL.
static char** ReadList(const char* path)
{
    size_t size;
    char* const text = Read(path, &size);
    char** const list = calloc(size + 1, sizeof *list);
    if (list == NULL) {
        Fail(path);
    }
    size_t count = 0;
    for (char* at = text; at < text + size; at += strlen(at) + 1) {
        list[count++] = at;
    }
    return list;
}

static void Redirect(const char* path, int flags, int descriptor)
{
    const int file = open(path, flags);
    if (file == -1 || dup2(file, descriptor) == -1) {
        Fail(path);
    }
    close(file);
}

// In the child.
static void StartProgram(const char* job)
{
    char** const arguments = ReadList(Of(job, "command"));
    char** const environment = ReadList(Of(job, "environment"));
    const char* const directory = ReadText(Of(job, "directory"));
    const uid_t user = (uid_t)atoi(ReadText(Of(job, "user")));
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    setsid();
    Redirect("/dev/null", O_RDONLY, STDIN_FILENO);
    Redirect(Of(job, "output"), O_WRONLY, STDOUT_FILENO);
    if (Exists(Of(job, "errors"))) {
        Redirect(Of(job, "errors"), O_WRONLY, STDERR_FILENO);
    } else if (dup2(STDOUT_FILENO, STDERR_FILENO) == -1) {
        Fail("dup2");
    }
    if (user != 0 && (setgroups(0, NULL) != 0 || setgid(user) != 0 || setuid(user) != 0)) {
        Fail("setuid");
    }
    if (chdir(directory) != 0) {
        Fail(directory);
    }
    execvpe(arguments[0], arguments, environment);
    Fail(arguments[0]);
}

static time_t Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Waits for the program, at most so many seconds. Returns how it ended, as a shell shows it: its status, or 128 and the
// signal that killed it.
static const char* WaitFor(pid_t program, time_t seconds)
{
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    const time_t end = Now() + seconds;
    for (time_t left; (left = end - Now()) > 0;) {
        int status;
        for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == program) {
                return Format("%d", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
            }
        }
        const struct timespec pause = {left, 0};
        (void)sigtimedwait(&child, NULL, &pause);
    }
    return "late";
}

static void RunJob(const char* job)
{
    const pid_t program = fork();
    if (program == -1) {
        Fail("fork");
    }
    if (program == 0) {
        StartProgram(job);
    }
    const char* const result = WaitFor(program, atoi(ReadText(Of(job, "seconds"))));
    (void)kill(-program, SIGKILL);  // what it left running
    FILE* const file = fopen(Of(job, "result"), "w");
    if (file == NULL || fputs(result, file) < 0 || fclose(file) != 0 ||
        rename(Of(job, "result"), Format("/host/%s.done", job)) != 0) {
        Fail(job);
    }
}

static void Serve(void)
{
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, NULL);
    close(creat("/host/started", 0644));
    char line[NAME_MAX];
    while (fgets(line, sizeof line, stdin) != NULL && strcmp(line, "stop\n") != 0) {
        line[strcspn(line, "\n")] = '\0';
        RunJob(line);
    }
}

// ---- A console

static void RunShell(void)
{
    const pid_t shell = fork();
    if (shell == 0) {
        setsid();
        (void)ioctl(STDIN_FILENO, TIOCSCTTY, 1);
        (void)chdir(ReadText("/host/tree"));
        execl("/bin/sh", "-sh", (char*)NULL);
        _exit(127);
    }
    for (pid_t process; (process = wait(NULL)) != shell && (process != -1 || errno == EINTR);) {
    }
}

int main(void)
{
    setenv("PATH", "/bin", 1);
    setenv("HOME", "/tmp", 1);
    MountAll();
    SetClock();
    StartNetwork();
    if (Exists("/host/shell")) {
        RunShell();
    } else {
        Serve();
    }
    (void)kill(-1, SIGKILL);
    sync();
    (void)umount("/var/tmp");
    reboot(RB_POWER_OFF);
    return 1;
}
