// Human-readable dump of the simulated kernel's state (mgsim_dump, mgsimctl dump).
#include "mgsim.h"
#include "state.hpp"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <string>

using namespace mgsim;

namespace {

std::string ip_text(uint32_t addr) {
    char buf[INET_ADDRSTRLEN] = "";
    in_addr a{};
    a.s_addr = addr;
    inet_ntop(AF_INET, &a, buf, sizeof buf);
    return buf;
}

// Fixed character fields may lack their NUL in a damaged record.
std::string text(const char *field, size_t size) { return std::string(field, strnlen(field, size)); }
#define FIELD(x) text((x), sizeof(x)).c_str()

void dump_rules(FILE *out, const std::vector<RuleEntry> &rules) {
    for (const RuleEntry &r : rules)
        fprintf(out, "    rule type=%u id=%u name=%s path=%s perm=%#x ip=%s\n", r.type, r.id, FIELD(r.name),
                FIELD(r.path), r.perm, ip_text(r.ipaddr).c_str());
}

void header(FILE *out, const char *title, size_t n) { fprintf(out, "[%s] %zu\n", title, n); }

void dump_info(FILE *out, const State &s) {
    fprintf(out, "[module]\n  version=%s status=%d absent=%d\n  fail=%s\n  log=%s\n  conf=", s.version.c_str(),
            s.status, s.absent, format_fail_rules(s.fails).c_str(), s.log_path.c_str());
    for (uint8_t b : s.conf) fprintf(out, " %u", b);
    fprintf(out, "\n");
}

}  // namespace

int mgsim_dump_state(FILE *out, const State &s, int table) {
    auto want = [&](int t) { return table == MGSIM_ALL || table == t; };
    if (table == MGSIM_ALL) dump_info(out, s);
    if (want(MGSIM_T_PROC)) {
        header(out, "proc", s.procs.size());
        for (const ProcEntry &p : s.procs)
            fprintf(out, "  pid=%d role=%u level=%d category=%d auth=%u label=%d\n", p.pid, p.role, p.level,
                    p.category, p.auth, MG_PLABEL(p.role, p.level, p.category));
    }
    if (want(MGSIM_T_SETPID)) {
        header(out, "setpid", s.setpids.size());
        for (int32_t pid : s.setpids) fprintf(out, "  pid=%d\n", pid);
    }
    if (want(MGSIM_T_FILE)) {
        header(out, "file", s.files.size());
        for (const FileEntry &f : s.files)
            fprintf(out, "  %s kind=%u flag=%u level=%d category=%d %s\n", f.path.c_str(), f.label.kind, f.label.flag,
                    f.label.level, f.label.category, f.is_dir ? "dir" : "file");
    }
    if (want(MGSIM_T_MU)) {
        header(out, "mu", s.users.size());
        for (const MuRecord &u : s.users)
            fprintf(out, "  uid=%d gid=%d name=%s role=%u level=%d category=%d retry=%d flags=%#x\n", u.uid, u.gid,
                    FIELD(u.name), u.role, u.level, u.category, u.retry, u.flags);
    }
    if (want(MGSIM_T_CAT)) {
        header(out, "cat", s.cats.size());
        for (const CatRecord &c : s.cats)
            fprintf(out, "  id=%d depth=%u role=%u name=%s\n", c.id, c.depth, c.role, FIELD(c.name));
    }
    if (want(MGSIM_T_CMD)) {
        header(out, "cmd", s.cmds.size());
        for (const CmdRecord &c : s.cmds) fprintf(out, "  %s priority=%u\n", FIELD(c.command), c.priority);
    }
    if (want(MGSIM_T_SU)) {
        header(out, "su", s.su.size());
        for (const SuRecord &r : s.su) fprintf(out, "  uid=%d word=%d\n", r.uid, r.word);
    }
    if (want(MGSIM_T_FACL)) {
        header(out, "facl", s.facl.size());
        for (const FaclEntry &e : s.facl) {
            fprintf(out, "  %s rules=%zu mode=%d flag=%u polgrp=%d\n", FIELD(e.hdr.path), e.rules.size(), e.hdr.mode,
                    e.hdr.flag, e.hdr.polgrp_id);
            dump_rules(out, e.rules);
        }
    }
    if (want(MGSIM_T_FGROUP)) {
        header(out, "fgroup", s.fgroups.size());
        for (const FgroupEntry &e : s.fgroups) {
            fprintf(out, "  id=%d name=%s rules=%zu members=%zu mode=%d polgrp=%d\n", e.hdr.fgroup_id,
                    FIELD(e.hdr.name), e.rules.size(), e.members.size(), e.hdr.mode, e.hdr.polgrp_id);
            dump_rules(out, e.rules);
            for (const MemberPath &m : e.members) fprintf(out, "    member %s flag=%u\n", FIELD(m.path), m.flag);
        }
    }
    if (want(MGSIM_T_KILL)) {
        header(out, "kill", s.kill_acl.size());
        for (const KillAcl &k : s.kill_acl)
            fprintf(out, "  %s flag=%d denymask=%#x\n", FIELD(k.path), k.flag, k.denymask);
    }
    auto dump_setuid = [&](const char *title, const std::vector<SetuidAcl> &v) {
        header(out, title, v.size());
        for (const SetuidAcl &e : v) fprintf(out, "  %s flag=%d\n", FIELD(e.path), e.flag);
    };
    if (want(MGSIM_T_SETUID)) dump_setuid("setuid", s.setuid_acl);
    if (want(MGSIM_T_AUTODL)) dump_setuid("autodl", s.auto_dl);
    if (want(MGSIM_T_ALCMD)) {
        header(out, "alcmd", s.alcmd.size());
        for (const AlcmdEntry &a : s.alcmd)
            fprintf(out, "  %s %d:%d:%d:%d\n", FIELD(a.path), a.opt1, a.opt2, a.opt3, a.opt4);
    }
    if (want(MGSIM_T_ORIGIN)) {
        header(out, "origin", s.origins.size());
        for (const MGLoginOrigin &o : s.origins)
            fprintf(out, "  pid=%lld tty=%d:%d addr=%s text=%s\n", static_cast<long long>(o.pid), o.tty_major,
                    o.tty_minor, ip_text(o.addr).c_str(), FIELD(o.addr_text));
    }
    static const char *const alsvc_titles[3] = {"alsvc-user", "alsvc-group", "alsvc-default"};
    for (int t = 0; t < 3; ++t) {
        if (!want(MGSIM_T_ALSVC_USER + t)) continue;
        const auto &table = s.alsvc[static_cast<size_t>(t)];
        header(out, alsvc_titles[t], table.size());
        for (const AlsvcEntry &e : table) {
            fprintf(out, "  id=%d name=%s rules=%zu\n", e.hdr.id, FIELD(e.hdr.name), e.rules.size());
            for (const AlsvcRule &r : e.rules)
                fprintf(out, "    %s:%d:%d:%s\n", FIELD(r.service), r.value1, r.value2, ip_text(r.ipaddr).c_str());
        }
    }
    if (table == MGSIM_ALL)
        fprintf(out, "[buffers] kernlog=%zu seslog=%zu sesuser=%zu\n", s.kernlog.size(), s.seslog.size(),
                s.sesuser.size());
    return ferror(out) ? -1 : 0;
}
