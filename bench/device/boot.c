// The first process of a board that boots from its flash, for script/board boot-time. Publishes the page of the status
// board, prints when it started and when the page was there, both since the start of the machine, and ends it.

#include <stdio.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// The processor counts from the moment when it is switched on.
static double Milliseconds(void)
{
    const double kPerMillisecond = 400e3;  // QEMU's
    return (double)__builtin_ppc_get_timebase() / kPerMillisecond;
}

static void Require(int succeeded, const char* what)
{
    if (!succeeded) {
        perror(what);
        reboot(RB_POWER_OFF);
    }
}

static void Mount(const char* type, const char* target)
{
    Require(mount("none", target, type, 0, "") == 0, target);
}

static void Publish(void)
{
    const pid_t program = fork();
    if (program == 0) {
        execl("/bin/statusboard", "statusboard", "/etc/statusboard.conf", (char*)NULL);
        _exit(127);
    }
    int status;
    Require(waitpid(program, &status, 0) == program && status == 0, "statusboard");
}

int main(void)
{
    const double start = Milliseconds();
    Mount("devtmpfs", "/dev");
    Require(freopen("/dev/console", "w", stdout) != NULL && freopen("/dev/console", "w", stderr) != NULL, "console");
    Mount("proc", "/proc");
    Mount("sysfs", "/sys");
    Mount("tmpfs", "/var/tmp");
    Require(mkdir("/var/tmp/www", 0755) == 0, "www");
    Publish();
    const double end = Milliseconds();
    Require(access("/var/tmp/www/statusboard.html", F_OK) == 0, "page");
    printf("started after %.1f ms, page after %.1f ms\n", start, end);
    fflush(stdout);
    reboot(RB_POWER_OFF);
}
