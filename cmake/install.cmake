# Rules of `cmake --install`: libraries, zytview, the headers for clients, and the files for CMake and pkg-config.
include(CMakePackageConfigHelpers)
set(ZYT_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/zyttools)
set(ZYT_CONFIG ${CMAKE_INSTALL_LIBDIR}/cmake/zyttools)

install(TARGETS hostdevice zyttools nodekit EXPORT zyttoolsTargets FILE_SET HEADERS DESTINATION ${ZYT_HEADERS})
install(DIRECTORY common/nodekit DESTINATION ${ZYT_HEADERS} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY platform/host/include/ DESTINATION ${ZYT_HEADERS}/host)
if(ZYT_BUILD_TOOLS)
    install(TARGETS zytview)
endif()

# The platform's headers and libraries, or those of the emulated device.
if(ZYT_HOST_AOSP)
    set(ZYT_PC_CFLAGS "-isystem ${ZYT_AOSP_INCLUDE_DIR}")
    cmake_path(GET ZYT_AOSP_LIBUTILS PARENT_PATH ZYT_AOSP_LIBDIR)
    set(ZYT_PC_LIBS "${ZYT_AOSP_LIBCUTILS} ${ZYT_AOSP_LIBLOG} ${ZYT_AOSP_LIBUTILS} -Wl,-rpath,${ZYT_AOSP_LIBDIR}")
else()
    install(DIRECTORY platform/host/standin/ DESTINATION ${ZYT_HEADERS}/host)
endif()

# Relative to the file itself, so that an installed tree can be moved.
file(RELATIVE_PATH ZYT_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/zyttools.pc.in zyttools.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zyttools.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_package_config_file(cmake/zyttools-config.cmake.in zyttools-config.cmake INSTALL_DESTINATION ${ZYT_CONFIG})
write_basic_package_version_file(zyttools-config-version.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT zyttoolsTargets NAMESPACE zyttools:: DESTINATION ${ZYT_CONFIG})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zyttools-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/zyttools-config-version.cmake DESTINATION ${ZYT_CONFIG})
