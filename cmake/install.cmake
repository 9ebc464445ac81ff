# Install rules.
#
#   cmake -S . -B build -DCMAKE_INSTALL_PREFIX=/usr && cmake --build build
#   cmake --install build [--prefix DIR]
#
# GNUInstallDirs gives the multiarch library directory (lib/x86_64-linux-gnu on
# Debian amd64) when the prefix is /usr; the PAM module goes into its
# security/ subdirectory, where libpam looks for modules. Nothing is installed
# into /etc: the rule files and the installation root are the administrator's.

include(GNUInstallDirs)
set(MG_PAM_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}/security" CACHE STRING
    "Directory of PAM modules, relative to the installation prefix")

# Only the module login services should load: not sanitized, no C++ runtime.
if(NOT MG_SANITIZE AND NOT MG_LIBFUZZER)
  install(TARGETS pam_mg_acl LIBRARY DESTINATION ${MG_PAM_MODULE_DIR}
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  install(TARGETS mgctl RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/mossgrove DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/policy ${PROJECT_SOURCE_DIR}/examples/rsyslog DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
