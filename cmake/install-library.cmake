# What a host needs: the shared library (with the Loguru that it brought along, if any), the public
# header, a pkg-config file and a CMake package. All of it can be moved to another prefix.

install(TARGETS handwriting_forward EXPORT handwriting_forward-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES api/handwriting_forward.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(LOGURU_BUNDLED_LIBRARY)
  install(FILES ${LOGURU_BUNDLED_LIBRARY} DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_prefix /prefix/${pkgconfig_dir} /prefix)
string(REGEX REPLACE "/$" "" pkgconfig_to_prefix ${pkgconfig_to_prefix})
configure_file(cmake/handwriting_forward.pc.in handwriting_forward.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/handwriting_forward.pc DESTINATION ${pkgconfig_dir})

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/handwriting_forward)
configure_package_config_file(
  cmake/handwriting_forward-config.cmake.in handwriting_forward-config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/handwriting_forward-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/handwriting_forward-config.cmake
              ${PROJECT_BINARY_DIR}/handwriting_forward-config-version.cmake
        DESTINATION ${package_dir})
install(EXPORT handwriting_forward-targets NAMESPACE handwriting_forward::
        DESTINATION ${package_dir})
