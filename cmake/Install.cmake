# What `cmake --install` puts under the prefix (docs/installing.md):
# the daemon, tvkit, the client library (shared and static) with the headers
# a host needs, its pkg-config file and CMake package, the systemd units,
# sysusers.d and tmpfiles.d entries and the system instance's configuration.

# The client library is what hosts link: the Tarvik layer and the layers
# under it. The shared one is built from the same objects as the static
# layer libraries the daemon links, so those are compiled position
# independent (the daemon is a PIE anyway).
set(TARVIK_LAYERS tarvik_base tvplatform tarvik)
set_target_properties(${TARVIK_LAYERS} PROPERTIES POSITION_INDEPENDENT_CODE ON)
set(TARVIK_OBJECTS)
foreach(layer ${TARVIK_LAYERS})
  list(APPEND TARVIK_OBJECTS $<TARGET_OBJECTS:${layer}>)
endforeach()
# The soname's number changes when a host built against an older library
# would no longer work with a newer one.
set(TARVIK_SOVERSION 0)

add_library(tarvik_shared SHARED ${TARVIK_OBJECTS})
set_target_properties(tarvik_shared PROPERTIES
  OUTPUT_NAME tarvik VERSION ${PROJECT_VERSION} SOVERSION ${TARVIK_SOVERSION}
  EXPORT_NAME Tarvik)
target_link_options(tarvik_shared PRIVATE -Wl,--no-undefined)
target_link_libraries(tarvik_shared PRIVATE PkgConfig::EXPAT PkgConfig::SYSTEMD PkgConfig::SQLITE3 OpenSSL::Crypto
                                    PUBLIC Threads::Threads)

add_library(tarvik_static STATIC ${TARVIK_OBJECTS})
set_target_properties(tarvik_static PROPERTIES OUTPUT_NAME tarvik EXPORT_NAME TarvikStatic)
# A static archive's users link what its objects need; plain library names
# keep the installed package free of this build's paths.
target_link_libraries(tarvik_static INTERFACE Threads::Threads expat systemd sqlite3 crypto)

foreach(target tarvik_shared tarvik_static)
  # Beside the build tree's own libtarvik.a (the Tarvik layer alone).
  set_target_properties(${target} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
  target_include_directories(${target} INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/Tarvik>)
  target_compile_features(${target} INTERFACE cxx_std_20)
endforeach()

# Public headers: what a host includes to connect and send requests, and
# everything those include. The example host (examples/host) includes the
# top ones, so the install test fails when this list misses one.
set(TARVIK_PUBLIC_HEADERS
  Tarvik/TvDaemonClient.h Tarvik/TvDiscoveryFlags.h Tarvik/TvMessageConversion.h
  base/Date.h base/Format.h base/Result.h base/SerialQueue.h base/TvError.h base/Uuid.h base/Value.h
  platform/PlatformConfig.h
  platform/ipc/LinuxVynService.h platform/ipc/Message.h platform/ipc/VynConnection.h
  platform/ipc/VynConnectionTable.h platform/ipc/VynEvent.h platform/ipc/VynListener.h
  platform/ipc/VynRuntime.h platform/ipc/VynService.h
  platform/lifecycle/SocketActivation.h)
foreach(header ${TARVIK_PUBLIC_HEADERS})
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${CMAKE_SOURCE_DIR}/${header}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Tarvik/${dir} COMPONENT dev)
endforeach()

install(TARGETS tvd DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET tvkit)
  install(TARGETS tvkit DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(TARGETS tarvik_shared tarvik_static EXPORT TarvikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)

set(TARVIK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tarvik)
install(EXPORT TarvikTargets NAMESPACE Tarvik:: DESTINATION ${TARVIK_CMAKE_DIR} COMPONENT dev)
include(CMakePackageConfigHelpers)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/TarvikConfig.cmake.in
  ${CMAKE_BINARY_DIR}/install/TarvikConfig.cmake INSTALL_DESTINATION ${TARVIK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/install/TarvikConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/install/TarvikConfig.cmake ${CMAKE_BINARY_DIR}/install/TarvikConfigVersion.cmake
  DESTINATION ${TARVIK_CMAKE_DIR} COMPONENT dev)

# Outside /usr the pkg-config file finds the prefix from its own place, so
# an installed tree still works when moved (or installed with DESTDIR and
# used there).
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(TARVIK_PC_PREFIX /usr)
else()
  file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" up "${up}")
  set(TARVIK_PC_PREFIX "\${pcfiledir}/${up}")
endif()
configure_file(${CMAKE_SOURCE_DIR}/cmake/tarvik.pc.in ${CMAKE_BINARY_DIR}/install/tarvik.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/install/tarvik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# Service files. With the distribution prefix /usr they go where systemd's
# pkg-config file says; under any other prefix (/usr/local, a test's
# temporary prefix) they stay under the prefix, in the lib/ directories that
# systemd also reads for /usr/local.
set(unit_default lib/systemd/system)
set(user_unit_default lib/systemd/user)
set(sysusers_default lib/sysusers.d)
set(tmpfiles_default lib/tmpfiles.d)
pkg_check_modules(SYSTEMD_PC QUIET systemd)
if(SYSTEMD_PC_FOUND AND CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  pkg_get_variable(unit_default systemd systemdsystemunitdir)
  pkg_get_variable(user_unit_default systemd systemduserunitdir)
  pkg_get_variable(sysusers_default systemd sysusersdir)
  pkg_get_variable(tmpfiles_default systemd tmpfilesdir)
endif()
set(TVD_SYSTEMD_UNIT_DIR ${unit_default} CACHE STRING "Where the system units go")
set(TVD_SYSTEMD_USER_UNIT_DIR ${user_unit_default} CACHE STRING "Where the per-user units go")
set(TVD_SYSUSERS_DIR ${sysusers_default} CACHE STRING "Where the sysusers.d entry goes")
set(TVD_TMPFILES_DIR ${tmpfiles_default} CACHE STRING "Where the tmpfiles.d entry goes")

# The units name the installed daemon and configuration by absolute path.
set(TVD_INSTALLED_BINARY ${CMAKE_INSTALL_FULL_SBINDIR}/tvd)
set(TVD_INSTALLED_CONFIG ${CMAKE_INSTALL_FULL_SYSCONFDIR}/tvd/tvd.conf)
set(service_files
  system/tvd.service system/tvd.socket user/tvd.service user/tvd.socket tvd.sysusers tvd.tmpfiles tvd.conf)
foreach(file ${service_files})
  configure_file(${CMAKE_SOURCE_DIR}/tvd/systemd/${file}.in ${CMAKE_BINARY_DIR}/systemd/${file} @ONLY)
endforeach()
set(out ${CMAKE_BINARY_DIR}/systemd)
install(FILES ${out}/system/tvd.service ${out}/system/tvd.socket DESTINATION ${TVD_SYSTEMD_UNIT_DIR})
install(FILES ${out}/user/tvd.service ${out}/user/tvd.socket DESTINATION ${TVD_SYSTEMD_USER_UNIT_DIR})
install(FILES ${out}/tvd.sysusers DESTINATION ${TVD_SYSUSERS_DIR} RENAME tvd.conf)
install(FILES ${out}/tvd.tmpfiles DESTINATION ${TVD_TMPFILES_DIR} RENAME tvd.conf)
# Absolute: with the prefix /usr the configuration belongs in /etc.
install(FILES ${out}/tvd.conf DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/tvd)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/installing.md
        ${CMAKE_SOURCE_DIR}/docs/configuration.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Manual pages (tests/tools/docs.sh lints them) and shell completion for
# tvkit, where bash-completion and Debian's zsh look.
install(FILES ${CMAKE_SOURCE_DIR}/man/tvkit.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/man/tvd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/completions/tvkit.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tvkit)
install(FILES ${CMAKE_SOURCE_DIR}/completions/_tvkit DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
