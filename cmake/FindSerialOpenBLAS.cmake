# Finds the serial build of OpenBLAS and provides the target SerialOpenBLAS::Guest: headers, and the
# path by which the library opens the shared object when it first needs it. Nothing is linked, since
# the name under which a program would ask for it is that of the threaded build as well.
#
#   HANDWRITING_BLAS_LIBRARY   the shared object, as it will stand on the machine that runs it

set(serial_folders ${CMAKE_LIBRARY_ARCHITECTURE}/openblas-serial openblas-serial openblas)
find_library(HANDWRITING_BLAS_LIBRARY NAMES libopenblas.so.0
             PATH_SUFFIXES ${serial_folders}
             DOC "Shared object of the serial build of OpenBLAS, opened at run time")
find_path(HANDWRITING_BLAS_INCLUDE_DIR NAMES cblas.h
          PATH_SUFFIXES ${serial_folders}
          DOC "Folder of OpenBLAS's cblas.h")

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SerialOpenBLAS
  REQUIRED_VARS HANDWRITING_BLAS_LIBRARY HANDWRITING_BLAS_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "libopenblas-serial-dev has it: run scripts/setup")

if(NOT TARGET SerialOpenBLAS::Guest)
  add_library(SerialOpenBLAS::Guest INTERFACE IMPORTED)
  set_target_properties(SerialOpenBLAS::Guest PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES ${HANDWRITING_BLAS_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES "${CMAKE_DL_LIBS}")
endif()
