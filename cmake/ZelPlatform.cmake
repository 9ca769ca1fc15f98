# Android platform interfaces the library calls: liblog, libcutils, libbase and libdmabufheap.
#
# On Android the system provides all four. On a Linux host liblog, libcutils and libbase are the
# AOSP libraries that Debian ships (android-liblog-dev, android-libcutils-dev,
# android-libbase-dev); the system properties of libcutils and the dmabuf heap allocator are
# host pieces of this project (platform/).
#
# Result: the INTERFACE target `zel_platform`, which carries include paths and libraries.

include(GNUInstallDirs)

add_library(zel_platform INTERFACE)
set_target_properties(zel_platform PROPERTIES EXPORT_NAME platform)

if(ANDROID)
    find_library(ZEL_LIBLOG log REQUIRED)
    find_library(ZEL_LIBCUTILS cutils REQUIRED)
    find_library(ZEL_LIBBASE base REQUIRED)
    find_library(ZEL_LIBDMABUFHEAP dmabufheap REQUIRED)
    target_link_libraries(zel_platform INTERFACE
        ${ZEL_LIBLOG} ${ZEL_LIBCUTILS} ${ZEL_LIBBASE} ${ZEL_LIBDMABUFHEAP})
    set(ZEL_HOST_PLATFORM OFF)
else()
    find_path(ZEL_ANDROID_INCLUDE_DIR android/log.h PATH_SUFFIXES android
        DOC "Directory that holds android/log.h, cutils/ and android-base/")
    find_library(ZEL_LIBLOG NAMES log PATH_SUFFIXES android)
    find_library(ZEL_LIBCUTILS NAMES cutils PATH_SUFFIXES android)
    find_library(ZEL_LIBBASE NAMES base PATH_SUFFIXES android)
    foreach(var ZEL_ANDROID_INCLUDE_DIR ZEL_LIBLOG ZEL_LIBCUTILS ZEL_LIBBASE)
        if(NOT ${var})
            message(FATAL_ERROR "${var} not found: install android-liblog-dev, "
                "android-libcutils-dev and android-libbase-dev (scripts/install-deps.sh does)")
        endif()
    endforeach()
    target_include_directories(zel_platform SYSTEM INTERFACE
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/zel_common_utils/platform>
        ${ZEL_ANDROID_INCLUDE_DIR})
    target_link_libraries(zel_platform INTERFACE ${ZEL_LIBLOG} ${ZEL_LIBCUTILS} ${ZEL_LIBBASE})
    set(ZEL_HOST_PLATFORM ON)
endif()
