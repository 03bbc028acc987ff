# Run by cpack before a package is closed.
set(content ${CPACK_TEMPORARY_INSTALL_DIRECTORY})

# Folders that no install rule names have the modes of the builder's umask.
execute_process(COMMAND find ${content} -type d -exec chmod 755 {} + COMMAND_ERROR_IS_FATAL ANY)

# The rest is for what the DEB has and the TGZ hasn't.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

# The time in a gzip header would make every package different.
file(GLOB_RECURSE pages ${content}/usr/share/man/*)
foreach(page ${pages})
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# The packages that hold what the objects need. CPack's own way to ask starts two programs for each
# file, a minute for this many; objects are known by their names here, and scripts/check_package.py
# looks at every file afterwards. The tree's own libraries have no package to be found in, hence
# --ignore-missing-info.
file(GLOB_RECURSE objects ${content}/opt/tavrel/*.so ${content}/opt/tavrel/*.so.*)
set(tree ${content}/opt/tavrel/bin)
set(scratch ${CPACK_TOPLEVEL_DIRECTORY}/shlibdeps)
file(WRITE ${scratch}/debian/control "")
execute_process(
  COMMAND dpkg-shlibdeps -O --ignore-missing-info -l${tree} -l${tree}/python3.7/lib ${objects}
    ${tree}/tavrel ${tree}/tavrelCleanup ${tree}/python3.7/bin/python3.7
  WORKING_DIRECTORY ${scratch}
  OUTPUT_VARIABLE depends
  ERROR_FILE ${scratch}/warnings
  COMMAND_ERROR_IS_FATAL ANY)
if(NOT depends MATCHES "shlibs:Depends=(.+)\n")
  message(FATAL_ERROR "dpkg-shlibdeps found no dependency: see ${scratch}/warnings")
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
