# Debian's host builds of the Android platform's log and base libraries
# (android-liblog-dev, android-libbase-dev, under /usr/lib/<multiarch>/android),
# as the imported targets Android::log and Android::base. Used by the build and
# by the installed libkivr package alike. Sets AndroidPlatformLibs_FOUND, and
# AndroidPlatformLibs_MESSAGE when something is missing.
include_guard(GLOBAL)

set(AndroidPlatformLibs_FOUND TRUE)
set(_android_dir /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
find_path(ANDROID_PLATFORM_INCLUDE_DIR android/log.h PATH_SUFFIXES android)
find_library(ANDROID_LOG_LIBRARY NAMES log PATHS ${_android_dir} NO_DEFAULT_PATH)
find_library(ANDROID_BASE_LIBRARY NAMES base PATHS ${_android_dir} NO_DEFAULT_PATH)
find_package(fmt QUIET)
if(NOT ANDROID_PLATFORM_INCLUDE_DIR OR NOT ANDROID_LOG_LIBRARY OR NOT ANDROID_BASE_LIBRARY
        OR NOT EXISTS ${ANDROID_PLATFORM_INCLUDE_DIR}/android-base/unique_fd.h OR NOT fmt_FOUND)
    set(AndroidPlatformLibs_FOUND FALSE)
    set(AndroidPlatformLibs_MESSAGE
        "the Android log and base libraries were not found (need <android/log.h>, "
        "<android-base/unique_fd.h>, liblog and libbase under ${_android_dir}, and libfmt): "
        "install Debian's android-liblog-dev, android-libbase-dev and libfmt-dev")
    return()
endif()

# Where programs find them at run time.
set(ANDROID_PLATFORM_LIBRARY_DIR ${_android_dir})

if(NOT TARGET Android::log)
    add_library(Android::log SHARED IMPORTED)
    set_target_properties(Android::log PROPERTIES
        IMPORTED_LOCATION ${ANDROID_LOG_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_PLATFORM_INCLUDE_DIR})
endif()
if(NOT TARGET Android::base)
    add_library(Android::base SHARED IMPORTED)
    set_target_properties(Android::base PROPERTIES
        IMPORTED_LOCATION ${ANDROID_BASE_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_PLATFORM_INCLUDE_DIR}
        INTERFACE_LINK_LIBRARIES fmt::fmt)
endif()
