/* A program that knows nothing of the simulator; the tests run it with
 * libmgsim.so preloaded. */
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(void) {
    long probe = syscall(SYS_kill, 6758L, 345L);
    char info[72];
    memset(info, 0, sizeof info);
    long start = syscall(223, 0L, (long)info, 0L, 72L, 0L);
    int status;
    memcpy(&status, info + 48, sizeof status);
    long pid = syscall(SYS_getpid);
    printf("probe=%ld start=%ld status=%d getpid=%s\n", probe, start, status, pid == getpid() ? "ok" : "wrong");
    return 0;
}
