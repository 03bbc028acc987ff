# Two packages from one set of install rules: a TGZ with the tree as it is, under tavrel-VERSION, and
# a DEB with the tree under /opt/tavrel and what a desktop and a shell look for under /usr. Who
# wants the same bytes twice sets SOURCE_DATE_EPOCH, as scripts/package.sh does.

# What tavrel_in_tree() was called for, one line each: type and path in the tree.
get_property(objects GLOBAL PROPERTY TAVREL_OBJECTS)
list(JOIN objects "\n" objects)
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/tree-objects CONTENT "${objects}\n")

# What of others is inside, from the texts that come with each part.
set(notices ${CMAKE_BINARY_DIR}/share/doc/tavrel/THIRD-PARTY.md)
set(third_party ${CMAKE_SOURCE_DIR}/scripts/package/third_party.py)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/share/doc/tavrel)
add_custom_command(OUTPUT ${notices}
  COMMAND ${TAVREL_TEST_PYTHON} -I -B ${third_party} notices ${notices}
  DEPENDS ${third_party} ${TAVREL_DEPS}/breakpad/.stamp ${TAVREL_DEPS}/boost_python/.stamp ${TAVREL_DEPS}/python3.7/.stamp
  COMMENT "Making THIRD-PARTY.md"
  VERBATIM)
add_custom_target(notices ALL DEPENDS ${notices})
tavrel_words(${notices})
get_property(words GLOBAL PROPERTY TAVREL_WORDS)
list(JOIN words "\n" words)
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/words CONTENT "${words}\n")

# The launcher into a tree that others fill: cmake --install FOLDER --component launcher --prefix TREE
tavrel_launcher_file(${notices} share/doc/tavrel/THIRD-PARTY.md)
get_property(launcher_files GLOBAL PROPERTY TAVREL_LAUNCHER_FILES)
list(JOIN launcher_files "\n" launcher_files)
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/launcher-files CONTENT "${launcher_files}\n")
install(CODE "set(install_launcher \"${TAVREL_PYTHON37_HOME}/bin/python3.7\" -I -S -B
    \"${CMAKE_SOURCE_DIR}/cmake/installLauncher.py\" \"${CMAKE_BINARY_DIR}/launcher-files\")"
  COMPONENT launcher EXCLUDE_FROM_ALL)
install(CODE [[
  get_filename_component(launcher_tree "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
  execute_process(COMMAND ${install_launcher} "$ENV{DESTDIR}${launcher_tree}" RESULT_VARIABLE launcher_failed)
  if(launcher_failed)
    message(FATAL_ERROR "the launcher is not installed (above)")
  endif()]]
  COMPONENT launcher EXCLUDE_FROM_ALL)

# Behind every rule of the tree and before those of other places.
install(SCRIPT cmake/WriteManifest.cmake)

# Made by the build: man pages and completion.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/share)
foreach(folder share/doc share/doc/tavrel)
  install(DIRECTORY DESTINATION ${folder} COMPONENT words)
endforeach()
install(DIRECTORY ${CMAKE_BINARY_DIR}/share/ DESTINATION share COMPONENT words)
# Laid out as in the source, so that links from one page to another hold.
install(FILES README.md CHANGELOG.md DESTINATION share/doc/tavrel COMPONENT words OPTIONAL)
install(DIRECTORY docs examples DESTINATION share/doc/tavrel COMPONENT words
  FILES_MATCHING REGEX "\\.(md|png|py|sbatch)$"
  PATTERN docs/man EXCLUDE)
install(DIRECTORY examples DESTINATION share/doc/tavrel COMPONENT words
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE
  FILES_MATCHING PATTERN "*.sh")

# Only a package that owns /usr may put these there, so a plain `cmake --install` leaves them out.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging)
foreach(command tavrel tavrelStack tavrelInfo)
  file(CREATE_LINK /opt/tavrel/bin/${command} ${CMAKE_BINARY_DIR}/packaging/${command} SYMBOLIC)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${command} DESTINATION bin COMPONENT desktop
    EXCLUDE_FROM_ALL)
endforeach()
install(FILES packaging/tavrel.desktop DESTINATION share/applications
  COMPONENT desktop EXCLUDE_FROM_ALL)
install(FILES packaging/tavrel-graph.xml DESTINATION share/mime/packages
  COMPONENT desktop EXCLUDE_FROM_ALL)
install(FILES packaging/com.zendrik.tavrel.metainfo.xml DESTINATION share/metainfo
  COMPONENT desktop EXCLUDE_FROM_ALL)
install(FILES packaging/tavrel.svg DESTINATION share/icons/hicolor/scalable/apps
  COMPONENT desktop EXCLUDE_FROM_ALL)

install(FILES packaging/lintian-overrides DESTINATION share/lintian/overrides RENAME tavrel
  COMPONENT desktop EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME tavrel)
set(CPACK_PACKAGE_VENDOR "Tavrel developers")
set(CPACK_PACKAGE_CONTACT "Tavrel developers <developers@tavrel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "node graph application with renderer plug-ins")
set(CPACK_PACKAGE_DESCRIPTION "The launcher with the interpreter and the libraries it brings along.
It opens the node graph in a window, or runs Python files without a display:
in a batch, as one script with arguments, or in an interactive shell.")
set(CPACK_PACKAGE_FILE_NAME tavrel-${PROJECT_VERSION})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_STRIP_FILES OFF) # A crash report names functions from the symbol tables.

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/PackagingPerGenerator.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/PackagingContent.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/PackagingSortedArchive.cmake)
include(CPack)
