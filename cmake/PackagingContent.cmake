# Run by cpack before a package is closed.
set(content ${CPACK_TEMPORARY_INSTALL_DIRECTORY})

# Folders that no install rule names have the modes of the builder's umask.
execute_process(COMMAND find ${content} -type d -exec chmod 755 {} + COMMAND_ERROR_IS_FATAL ANY)

# The packages that hold what the objects need. CPack's own way to ask starts two programs for each
# file, a minute for this many; objects are known by their names here, and scripts/package/check_package.py
# looks at every file afterwards. The tree's own libraries have no package to be found in, hence
# --ignore-missing-info.
set(tree ${content})
set(share ${content}/share)
if(CPACK_GENERATOR STREQUAL "DEB")
  set(tree ${content}/opt/tavrel)
  set(share ${content}/usr/share)
endif()
list(GET CPACK_BUILD_SOURCE_DIRS 0 source)
list(GET CPACK_BUILD_SOURCE_DIRS 1 build)
file(GLOB_RECURSE objects ${tree}/*.so ${tree}/*.so.*)
file(STRINGS ${build}/tree-objects programs REGEX "^EXECUTABLE ")
list(TRANSFORM programs REPLACE "^EXECUTABLE " "${tree}/")
set(scratch ${CPACK_TOPLEVEL_DIRECTORY}/shlibdeps)
file(WRITE ${scratch}/debian/control "")
execute_process(
  COMMAND dpkg-shlibdeps -O --ignore-missing-info -l${tree}/bin -l${tree}/bin/python3.7/lib ${objects}
    ${programs} ${tree}/bin/python3.7/bin/python3.7
  WORKING_DIRECTORY ${scratch}
  OUTPUT_VARIABLE depends
  ERROR_FILE ${scratch}/warnings
  COMMAND_ERROR_IS_FATAL ANY)
if(NOT depends MATCHES "shlibs:Depends=(.+)\n")
  message(FATAL_ERROR "dpkg-shlibdeps found no dependency: see ${scratch}/warnings")
endif()
set(depends "${CMAKE_MATCH_1}")

set(epoch $ENV{SOURCE_DATE_EPOCH})
if(NOT epoch)
  string(TIMESTAMP epoch %s UTC)
endif()
# tavrel_third_party(KIND OUTPUT WORD...): what scripts/package/third_party.py makes.
function(tavrel_third_party kind output)
  execute_process(COMMAND python3 -I -B ${source}/scripts/package/third_party.py ${kind} ${output} ${ARGN}
    COMMAND_ERROR_IS_FATAL ANY)
  file(CHMOD ${output} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()
tavrel_third_party(spdx ${share}/doc/tavrel/tavrel.spdx.json ${CPACK_PACKAGE_VERSION} ${epoch} "${depends}")

# The rest is for what the DEB has and the TGZ hasn't.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${depends}")
tavrel_third_party(copyright ${share}/doc/tavrel/copyright)

# A package of Debian's has a history in its own form: the words for people are in CHANGELOG.md.
execute_process(COMMAND date --utc --rfc-email --date=@${epoch} OUTPUT_VARIABLE date
  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(history ${share}/doc/tavrel/changelog)
file(WRITE ${history} "tavrel (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n"
  "  * See CHANGELOG.md.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
file(CHMOD ${history} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# The time in a gzip header would make every package different.
file(GLOB_RECURSE pages ${share}/man/*)
foreach(page ${pages} ${history})
  execute_process(COMMAND gzip -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
