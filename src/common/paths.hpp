// The fixed system paths of the library, read in this one place.
//
// Defaults are the real system paths. Administration tools run by a user
// other than root (and their tests) may name another "/etc/.evmg" through the
// environment variable MOSSGROVE_EVMG; it is ignored when the real uid is 0,
// in set-id programs and, once a PAM entry point has run, for the rest of the
// process: login services never take a path from the environment.
#pragma once

namespace mg::paths {

inline constexpr const char *kEvmgEnv = "MOSSGROVE_EVMG";

// File that names the installation root (key MG_ROOT).
const char *evmg() noexcept;
// Directory of the PAM module's mode file and rule files.
const char *pam_acl_dir() noexcept;
// utmpx file to count sessions from; nullptr means the C library's default.
const char *utmpx() noexcept;

// Called by the PAM entry points: the environment is ignored from now on.
void pin_system_defaults() noexcept;

// For tests and the administration tool (not exported): replace any of the
// paths; nullptr keeps the default.
void override_for_tests(const char *evmg, const char *pam_acl_dir, const char *utmpx) noexcept;
// The installation root itself, instead of the one "/etc/.evmg" names
// (the tool's --root); nullptr or "" ends the override.
void override_root(const char *root) noexcept;
// The overriding root, or nullptr.
const char *root_override() noexcept;

}  // namespace mg::paths
