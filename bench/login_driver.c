/* One login as a login service makes it, in a process of its own: the account
 * is looked up first (sshd does so before PAM), then pam_start_confdir, the
 * items, the account check, optionally the session opening, and pam_end.
 * Exit status 0 when every step succeeded.
 *
 * Usage: login_driver CONFDIR SERVICE USER account|session */
#define _GNU_SOURCE
#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <stdlib.h>
#include <string.h>

static int silent_conv(int n, const struct pam_message **msg, struct pam_response **resp, void *data) {
    (void)msg;
    (void)data;
    *resp = calloc((size_t)n, sizeof(struct pam_response));
    return *resp != NULL ? PAM_SUCCESS : PAM_BUF_ERR;
}

int main(int argc, char **argv) {
    if (argc != 5) return 2;
    struct passwd *pw = getpwnam(argv[3]);
    if (pw == NULL) return 3;
    gid_t groups[64];
    int ngroups = 64;
    if (getgrouplist(pw->pw_name, pw->pw_gid, groups, &ngroups) < 0) return 3;

    struct pam_conv conv = {silent_conv, NULL};
    pam_handle_t *pamh = NULL;
    if (pam_start_confdir(argv[2], argv[3], &conv, argv[1], &pamh) != PAM_SUCCESS) return 4;
    pam_set_item(pamh, PAM_RHOST, "10.0.0.5");
    pam_set_item(pamh, PAM_TTY, "/dev/pts/3");
    int rc = pam_acct_mgmt(pamh, 0);
    if (rc == PAM_SUCCESS && strcmp(argv[4], "session") == 0) rc = pam_open_session(pamh, 0);
    pam_end(pamh, rc);
    return rc == PAM_SUCCESS ? 0 : 1;
}
