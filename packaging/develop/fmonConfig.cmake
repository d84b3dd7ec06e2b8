# find_package(fmon): the imported targets
#   fmon::fmon  libfmon.so and its headers; the program, or a library of its own, supplies what the module imports
#   fmon::host  liborx_base.so, which supplies that; with fmon::fmon
# and FMON_PLUGIN, the file that a program loads which is not linked with it.
get_filename_component(_fmon_library_directory "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
find_path(FMON_INCLUDE_DIR orx_fmon.h PATHS ${_fmon_library_directory}/../include/fmon
    ${_fmon_library_directory}/../../include/fmon NO_DEFAULT_PATH)
find_library(FMON_LIBRARY fmon PATHS ${_fmon_library_directory} NO_DEFAULT_PATH)
find_library(FMON_HOST_LIBRARY orx_base PATHS ${_fmon_library_directory} ${_fmon_library_directory}/../fmon NO_DEFAULT_PATH)
find_file(FMON_PLUGIN libfmon.so PATHS ${_fmon_library_directory}/../fmon ${_fmon_library_directory} NO_DEFAULT_PATH)
mark_as_advanced(FMON_INCLUDE_DIR FMON_LIBRARY FMON_HOST_LIBRARY FMON_PLUGIN)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(fmon
    REQUIRED_VARS FMON_LIBRARY FMON_INCLUDE_DIR FMON_HOST_LIBRARY FMON_PLUGIN)

if(fmon_FOUND AND NOT TARGET fmon::fmon)
  add_library(fmon::fmon UNKNOWN IMPORTED)
  set_target_properties(fmon::fmon PROPERTIES IMPORTED_LOCATION ${FMON_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${FMON_INCLUDE_DIR})
  add_library(fmon::host INTERFACE IMPORTED)
  set_target_properties(fmon::host PROPERTIES INTERFACE_LINK_LIBRARIES # it is the module that calls the host
      "-Wl,--push-state,--no-as-needed;${FMON_HOST_LIBRARY};-Wl,--pop-state;fmon::fmon")
endif()
unset(_fmon_library_directory)
