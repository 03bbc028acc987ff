# Run at the end of the tree's installation: writes MANIFEST, the SHA-256 of every file of the tree in
# the format of sha256sum, so that both `tavrel --system-info` and `sha256sum -c MANIFEST` can check
# whether a tree is whole. Only what was installed is listed, for a prefix may hold other things.
# log.conf is left out: it is there to be edited, and dpkg doesn't list such files either.
set(prefix ${CMAKE_INSTALL_PREFIX})
# cpack installs a DEB with DESTDIR alone, into an empty prefix.
if(NOT "${prefix}" STREQUAL "")
  # `cmake --install` passes it on as it was typed, and lists the files by absolute paths.
  get_filename_component(prefix "${prefix}" ABSOLUTE)
endif()
set(tree $ENV{DESTDIR}${prefix})
set(lines)
string(LENGTH "${prefix}/" prefix_length)
foreach(file ${CMAKE_INSTALL_MANIFEST_FILES})
  get_filename_component(file "${file}" ABSOLUTE)
  string(SUBSTRING "${file}" ${prefix_length} -1 name)
  if(NOT name STREQUAL "bin/log.conf" AND NOT name STREQUAL "MANIFEST")
    file(SHA256 ${tree}/${name} hash)
    list(APPEND lines "${hash}  ${name}")
  endif()
endforeach()
list(REMOVE_DUPLICATES lines)
# By name, whatever the order of the folders on this disk.
list(TRANSFORM lines REPLACE "^(.*)  (.*)$" "\\2  \\1")
list(SORT lines)
list(TRANSFORM lines REPLACE "^(.*)  (.*)$" "\\2  \\1")
list(JOIN lines "\n" text)
file(WRITE ${tree}/MANIFEST "${text}\n")
file(CHMOD ${tree}/MANIFEST PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${prefix}/MANIFEST)
