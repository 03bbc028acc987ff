# Read by cpack once for each package: which of the installed components goes where.
set(build ${CPACK_BUILD_SOURCE_DIRS})
list(GET build 1 build)
if(CPACK_GENERATOR STREQUAL "DEB")
  set(CPACK_PACKAGING_INSTALL_PREFIX /)
  set(CPACK_INSTALL_CMAKE_PROJECTS
    ${build} tavrel tree /opt/tavrel
    ${build} tavrel words /usr
    ${build} tavrel desktop /usr)
else()
  set(CPACK_INSTALL_CMAKE_PROJECTS ${build} tavrel tree / ${build} tavrel words /)
endif()
