# What an installation holds: the library, its headers, qel.pc for pkg-config and the CMake package "qel"; tools/ adds
# the program qel where it is built.
include(CMakePackageConfigHelpers)

# qel.pc finds the rest from where it lies itself, so an installation can be moved.
file(RELATIVE_PATH QEL_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
set(QEL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qel)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qel.pc.in ${PROJECT_BINARY_DIR}/qel.pc @ONLY)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qel-config.cmake.in ${PROJECT_BINARY_DIR}/qel-config.cmake
                              INSTALL_DESTINATION ${QEL_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qel-config-version.cmake VERSION ${PROJECT_VERSION}
                                 COMPATIBILITY SameMinorVersion)

install(TARGETS qel EXPORT qel-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT qel-targets NAMESPACE qel:: DESTINATION ${QEL_PACKAGE_DIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/shared/include/qel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_BINARY_DIR}/qel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${PROJECT_BINARY_DIR}/qel-config.cmake ${PROJECT_BINARY_DIR}/qel-config-version.cmake
        DESTINATION ${QEL_PACKAGE_DIR})
