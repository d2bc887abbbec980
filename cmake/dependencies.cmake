# Dependencies looked up by the name packaging/debian-packages.txt gives
# them, so that a configure that lacks one names the Debian package and the
# command that installs everything.
set(lockstep_package_list ${CMAKE_CURRENT_LIST_DIR}/../packaging/debian-packages.txt)

# lockstep_debian_package(NAME OUT): the Debian package CMake finds NAME in.
function(lockstep_debian_package name out)
  file(STRINGS ${lockstep_package_list} lines REGEX "^[^#[ ]+ +[^ ]+ +${name}$")
  if(NOT lines)
    message(FATAL_ERROR "${lockstep_package_list} names no package for ${name}")
  endif()
  list(GET lines 0 line)
  string(REGEX MATCH "^[^ ]+" package "${line}")
  set(${out} ${package} PARENT_SCOPE)
endfunction()

# lockstep_require_package(NAME ARGS...): find_package(NAME ARGS...), or stop
# with what is missing and how to install it.
macro(lockstep_require_package name)
  find_package(${name} ${ARGN} QUIET)
  if(NOT ${name}_FOUND)
    lockstep_debian_package(${name} lockstep_missing_package)
    message(FATAL_ERROR
      "${name} is missing: on Debian it comes with the package ${lockstep_missing_package}.\n"
      "Install everything lockstep needs with:\n"
      "  ${PROJECT_SOURCE_DIR}/packaging/install-dependencies.sh\n")
  endif()
endmacro()
