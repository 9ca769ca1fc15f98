# Installation: the shared library, its public headers, a CMake package
# (find_package(zel_common_utils CONFIG) -> zel::common_utils) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZEL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/zel_common_utils)
set(ZEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/zel_common_utils)

install(TARGETS zel_common_utils zel_platform
    EXPORT zel_common_utils_targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Headers keep their paths below the include root, as the sources include them. The profiler's
# implementation folder holds only its private header.
install(FILES zel_common_utils.h DESTINATION ${ZEL_INSTALL_INCLUDEDIR})
foreach(dir debug util src/common/zel_memory)
    install(DIRECTORY ${dir}/ DESTINATION ${ZEL_INSTALL_INCLUDEDIR}/${dir}
        FILES_MATCHING PATTERN "*.h" PATTERN "profiler" EXCLUDE)
endforeach()
if(ZEL_HOST_PLATFORM)
    install(DIRECTORY platform/include/ DESTINATION ${ZEL_INSTALL_INCLUDEDIR}/platform
        FILES_MATCHING PATTERN "*.h")
endif()

install(EXPORT zel_common_utils_targets
    NAMESPACE zel::
    FILE zel_common_utilsTargets.cmake
    DESTINATION ${ZEL_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/zel_common_utilsConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/zel_common_utilsConfig.cmake
    INSTALL_DESTINATION ${ZEL_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zel_common_utilsConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/zel_common_utilsConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/zel_common_utilsConfigVersion.cmake
    DESTINATION ${ZEL_INSTALL_CMAKEDIR})

# pkg-config: the same include roots and libraries as the CMake package.
set(ZEL_PC_CFLAGS "-I\${includedir}/zel_common_utils")
if(ZEL_HOST_PLATFORM)
    string(APPEND ZEL_PC_CFLAGS " -I\${includedir}/zel_common_utils/platform -I${ZEL_ANDROID_INCLUDE_DIR}")
    get_filename_component(ZEL_ANDROID_LIBDIR ${ZEL_LIBLOG} DIRECTORY)
    set(ZEL_PC_LIBS_PRIVATE "-L${ZEL_ANDROID_LIBDIR} -Wl,-rpath,${ZEL_ANDROID_LIBDIR} -llog -lcutils -lbase")
endif()
configure_file(cmake/zel_common_utils.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zel_common_utils.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zel_common_utils.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
