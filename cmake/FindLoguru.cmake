# Finds Loguru and provides the target Loguru::Loguru. Sources include <loguru.hpp> in all cases.
#
# 1. A Loguru installed on the system, by its CMake package or by its pkg-config file.
# 2. The copy that scripts/setup takes out of Debian's VTK packages and leaves in
#    HANDWRITING_LOGURU_DIR. That header maps the namespace `loguru` to its own by a macro.
#    LOGURU_BUNDLED_LIBRARY is then the shared object to install beside the library.

set(HANDWRITING_LOGURU_DIR ${PROJECT_SOURCE_DIR}/build/loguru
    CACHE PATH "Folder of the Loguru that scripts/setup unpacked, used where the system has none")
unset(LOGURU_BUNDLED_LIBRARY)

if(NOT TARGET Loguru::Loguru)
  add_library(Loguru::Loguru INTERFACE IMPORTED)
endif()

find_package(loguru CONFIG QUIET)
find_package(PkgConfig QUIET)
if(NOT loguru_FOUND AND PkgConfig_FOUND)
  pkg_check_modules(LOGURU_PC QUIET IMPORTED_TARGET loguru)
endif()

if(loguru_FOUND)
  set(loguru_origin "CMake package ${loguru_DIR}")
  target_link_libraries(Loguru::Loguru INTERFACE loguru::loguru)
elseif(LOGURU_PC_FOUND)
  set(loguru_origin "pkg-config, version ${LOGURU_PC_VERSION}")
  target_link_libraries(Loguru::Loguru INTERFACE PkgConfig::LOGURU_PC)
elseif(EXISTS ${HANDWRITING_LOGURU_DIR}/include/loguru.hpp)
  file(GLOB unpacked ${HANDWRITING_LOGURU_DIR}/lib/libvtkloguru-*.so.1)
  if(unpacked)
    # Beside the library that is built, as it will be beside the library that is installed.
    cmake_path(GET unpacked FILENAME loguru_soname)
    file(COPY ${unpacked} DESTINATION ${PROJECT_BINARY_DIR})
    set(loguru_origin ${HANDWRITING_LOGURU_DIR})
    set(LOGURU_BUNDLED_LIBRARY ${PROJECT_BINARY_DIR}/${loguru_soname})
    add_library(Loguru::Bundled SHARED IMPORTED)
    set_target_properties(Loguru::Bundled PROPERTIES
      IMPORTED_LOCATION ${LOGURU_BUNDLED_LIBRARY}
      IMPORTED_SONAME ${loguru_soname}
      INTERFACE_INCLUDE_DIRECTORIES ${HANDWRITING_LOGURU_DIR}/include)
    target_link_libraries(Loguru::Loguru INTERFACE Loguru::Bundled)
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Loguru
  REQUIRED_VARS loguru_origin
  REASON_FAILURE_MESSAGE "neither the system nor ${HANDWRITING_LOGURU_DIR} has it: run scripts/setup")
