/* A program that knows nothing of the simulator; the tests run it with
 * libmgsim.so preloaded. */
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(void) {
    char info[72] = {0};
    long probe = syscall(SYS_kill, 6758L, 345L), start = syscall(223, 0L, (long)info, 0L, 72L, 0L);
    int status;
    memcpy(&status, info + 48, sizeof status);
    printf("probe=%ld start=%ld status=%d getpid=%s\n", probe, start, status,
           syscall(SYS_getpid) == getpid() ? "ok" : "wrong");
    return 0;
}
