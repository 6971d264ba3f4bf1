# What `cmake --install` puts under the prefix, how other projects find it
# (a CMake package and pkg-config files), and the Debian package of it all.
include(CMakePackageConfigHelpers)

set(KIVR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libkivr)
set(KIVR_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/kivr)

# The library (shared and static), the host stand-ins for the platform's
# messaging client (the simulated modem in process, and the client of the
# modem service), and the diagnostics sink the static library needs.
install(TARGETS kivr kivr_static kivr_diag xalsim xalremote
    EXPORT libkivrTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kivctl kivmodemd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The messaging client over a modem manager, and the simulated modem
# manager, where sd-bus is there.
if(TARGET xalmm)
    install(TARGETS xalmm
        EXPORT libkivrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development)
    install(TARGETS kivmmd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES platform/mmclient/XalMm.h DESTINATION ${KIVR_HEADER_DIR}/mmclient)
    install(FILES platform/mmclient/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/xalmm)
    install(FILES tools/kivmmd/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/kivmmd)
endif()

install(DIRECTORY inc/ DESTINATION ${KIVR_HEADER_DIR} FILES_MATCHING PATTERN "*.h")
# The messaging client interface, and what the stand-ins' control classes
# need beside it.
install(DIRECTORY platform/include/xal platform/include/diag DESTINATION ${KIVR_HEADER_DIR})
install(FILES platform/sim/SimModem.h platform/sim/ModemCore.h DESTINATION ${KIVR_HEADER_DIR}/sim)
install(FILES base/Mutex.h DESTINATION ${KIVR_HEADER_DIR}/base)
install(FILES platform/remote/XalRemote.h platform/remote/ServiceControl.h
    DESTINATION ${KIVR_HEADER_DIR}/remote)
install(FILES platform/wire/ClientTable.h platform/wire/RequestHooks.h
    DESTINATION ${KIVR_HEADER_DIR}/wire)

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES tools/kivctl/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/kivctl)
install(FILES tools/kivmodemd/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/kivmodemd)
install(FILES platform/sim/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/simulated-modem)

# find_package(libkivr CONFIG): libkivr::kivr, libkivr::kivr_static,
# libkivr::xalsim, libkivr::xalremote, libkivr::xalmm.
install(EXPORT libkivrTargets NAMESPACE libkivr:: DESTINATION ${KIVR_CMAKE_DIR})
configure_package_config_file(cmake/libkivrConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/libkivrConfig.cmake
    INSTALL_DESTINATION ${KIVR_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/libkivrConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/libkivrConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/libkivrConfigVersion.cmake
    cmake/AndroidPlatformLibs.cmake
    DESTINATION ${KIVR_CMAKE_DIR})

# pkg-config: libkivr, libkivr-static, libkivr-xalsim, libkivr-xalremote,
# libkivr-xalmm.
# The files find the prefix from where they are, so a tree installed with
# --prefix elsewhere works as well.
file(RELATIVE_PATH KIVR_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
set(KIVR_PC_FILES libkivr libkivr-static libkivr-xalsim libkivr-xalremote)
if(TARGET xalmm)
    list(APPEND KIVR_PC_FILES libkivr-xalmm)
endif()
foreach(pc ${KIVR_PC_FILES})
    configure_file(cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# cpack -G DEB: one package with the library, its headers, the stand-ins and
# the tools.
set(CPACK_PACKAGE_NAME libkivr)
set(CPACK_PACKAGE_VENDOR "libkivr")
set(CPACK_PACKAGE_CONTACT "libkivr developers <libkivr@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Modem data profile management library, with a simulated modem and tools")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${ANDROID_PLATFORM_LIBRARY_DIR})
# What a user building against it needs beyond the shared libraries.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "android-liblog-dev, android-libbase-dev, libfmt-dev, nlohmann-json3-dev")
# kivmmd's users run a bus of their own.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "dbus-daemon")
include(CPack)
