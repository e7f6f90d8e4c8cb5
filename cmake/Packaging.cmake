# The Debian package: the three libraries and the logging library's Boost.Log
# back end, the public headers, the CMake package and pkg-config files, the
# command-line tool and, when it is built, the Python package (in
# /usr/lib/python3/dist-packages, for the python3 it was built for), in one
# package.
#
#   cmake -S . -B build/package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr
#   cmake --build build/package && (cd build/package && cpack -G DEB)
#
# The package installs under CMAKE_INSTALL_PREFIX, the prefix the pkg-config
# file names; with /usr, GNUInstallDirs puts the libraries in the multiarch
# directory (lib/x86_64-linux-gnu). The run-time dependencies (Boost.Log's
# runtime package, the C and C++ runtimes) come from dpkg-shlibdeps when it is
# installed, and are written out otherwise.
set(CPACK_PACKAGE_NAME endpointregistry)
set(CPACK_PACKAGE_VENDOR "EndpointRegistry")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Serverless publication and discovery of endpoints in shared memory")
set(CPACK_PACKAGE_DESCRIPTION
    "Processes of one machine publish and discover endpoints (pairs of data strings under a group tag) in named POSIX shared memory, with no server. Includes the endpointregistry command-line tool, the headers, the CMake and pkg-config files and the Python package endpointregistry.")
set(CPACK_PACKAGE_CONTACT "EndpointRegistry")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "EndpointRegistry")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

find_program(ER_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(ER_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The package's own libraries, relative to the staging root in which
  # dpkg-shlibdeps runs, so that the tool's dependencies on them resolve.
  string(REGEX REPLACE "^/" "" _er_staged_prefix "${CPACK_PACKAGING_INSTALL_PREFIX}")
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${_er_staged_prefix}/${CMAKE_INSTALL_LIBDIR}")
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libboost-log1.74.0, libboost-thread1.74.0, libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
endif()

if(TARGET endpointregistry_python)
  # The compiled module is for one minor version of Python.
  math(EXPR _er_python_next "${Python3_VERSION_MINOR} + 1")
  set(_er_python_depends
      "python3 (>= ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}), python3 (<< ${Python3_VERSION_MAJOR}.${_er_python_next})")
  if(CPACK_DEBIAN_PACKAGE_DEPENDS)
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", ${_er_python_depends}")
  else()
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "${_er_python_depends}")
  endif()
endif()

include(CPack)
