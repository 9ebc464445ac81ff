# The Debian package (CPack's DEB generator), made by scripts/package.sh.
# It is named after the project, so that the documentation directory of the
# install rules (CMAKE_INSTALL_DOCDIR, share/doc/mossgrove) is the package's.
set(MG_PACKAGE_NAME ${PROJECT_NAME})

# Debian wants the copyright file and the changelog (compressed, without a
# time stamp) in the package's documentation directory.
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/changelog mg_changelog_top LIMIT_COUNT 1)
if(NOT mg_changelog_top MATCHES "^${PROJECT_NAME} \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/changelog does not start with version ${PROJECT_VERSION}")
endif()
set(mg_changelog ${PROJECT_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${mg_changelog}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/packaging
  COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog > ${mg_changelog}
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(mg_changelog ALL DEPENDS ${mg_changelog})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${mg_changelog} DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${MG_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Mossgrove maintainers <maintainers@users.noreply.c-seed-78237782.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "PAM module and management library of the Mossgrove security module")
# The extended description (CPack puts the summary line above it).
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"pam_mg_acl.so is a PAM service module for login services such as sshd and
su: per-user, per-group and default rule files decide who may use which
service from which host, terminal and time (account phase), and the number
of concurrent login sessions is limited per user, group, address range or
by default (session phase). Violations go to the secure audit log.

The same shared object carries the user-space management library of the
Mossgrove kernel security module, with its C headers. mgctl, the
administration command line, explains login decisions, checks the rule
files and maintains the secure log.")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies come from what the installed binaries load (dpkg-shlibdeps):
# libc6 and libpam0g, libcrypt1 once the module links it, the C++ runtime for
# mgctl; never from what the build had.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/deb)
include(CPack)
