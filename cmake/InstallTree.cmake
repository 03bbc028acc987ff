# The runnable tree: every target that a user meets is built right into ${TAVREL_TREE}, laid out as
# it is installed, so that a build tree runs as it stands.

include(GNUInstallDirs)
set(TAVREL_TREE ${CMAKE_BINARY_DIR}/tree)
# Every rule that names no other component puts something into the tree itself.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tree)
# What is installed has the same modes under every umask.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Where the loader looks: the closed libraries, the interpreter and their companions, all from the
# program's own folder. As DT_RPATH (not RUNPATH), so that a user's LD_LIBRARY_PATH does not come first.
set(TAVREL_RUN_PATH "$ORIGIN:$ORIGIN/python3.7/lib:$ORIGIN/OpenSSL:$ORIGIN/graphviz/lib")

# tavrel_words(FILE...): what the build makes for readers, under share. A run needs none of it, so that
# `scripts/run.sh` leaves it out: an installation looks for it before it writes anything.
function(tavrel_words)
  set_property(GLOBAL APPEND PROPERTY TAVREL_WORDS ${ARGN})
endfunction()
# A variable with the name of a component would stand for it in the rules that follow.
install(CODE "
  file(STRINGS \"${CMAKE_BINARY_DIR}/words\" files_for_readers)
  foreach(file_for_readers IN LISTS files_for_readers)
    if(NOT EXISTS \"\${file_for_readers}\")
      message(FATAL_ERROR \"\${file_for_readers} is not built yet: run scripts/build.sh\")
    endif()
  endforeach()" COMPONENT words)

# A folder that only its content makes known would have the mode of the umask.
foreach(folder bin bin/python3.7 bin/python3.7/bin plugins)
  install(DIRECTORY DESTINATION ${folder})
endforeach()

# What a run needs, without tests and benchmarks.
add_custom_target(runnable)

# tavrel_launcher_file(SOURCE DESTINATION [MODE]): a file of the component `launcher`, which goes into
# trees that others fill. SOURCE may be a generator expression.
function(tavrel_launcher_file source destination)
  set(mode 644)
  if(ARGC GREATER 2)
    set(mode ${ARGV2})
  endif()
  set_property(GLOBAL APPEND PROPERTY TAVREL_LAUNCHER_FILES "${mode}\t${source}\t${destination}")
endfunction()

# tavrel_in_tree(TARGET [RUN_PATH PATH]): puts an executable, library or module into the tree's bin.
# Without RUN_PATH the object has none of its own. What isn't a stand-in is the launcher's own.
function(tavrel_in_tree target)
  cmake_parse_arguments(arg "" "RUN_PATH" "" ${ARGN})
  set_target_properties(${target} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${TAVREL_TREE}/bin
    LIBRARY_OUTPUT_DIRECTORY ${TAVREL_TREE}/bin
    BUILD_WITH_INSTALL_RPATH ON
    INSTALL_RPATH "${arg_RUN_PATH}")
  # Third-party archives bring debug information that names where they were built. The symbol
  # tables stay: crash reports name functions from them.
  target_link_options(${target} PRIVATE $<$<CONFIG:Release>:-Wl,--strip-debug>)
  install(TARGETS ${target} RUNTIME DESTINATION bin LIBRARY DESTINATION bin)
  add_dependencies(runnable ${target})
  get_target_property(type ${target} TYPE)
  set_property(GLOBAL APPEND PROPERTY TAVREL_OBJECTS "${type} bin/$<TARGET_FILE_NAME:${target}>")
  set(stand_ins ${CMAKE_SOURCE_DIR}/standins)
  cmake_path(IS_PREFIX stand_ins "${CMAKE_CURRENT_SOURCE_DIR}" is_stand_in)
  if(NOT is_stand_in)
    tavrel_launcher_file($<TARGET_FILE:${target}> bin/$<TARGET_FILE_NAME:${target}> 755)
  endif()
endfunction()

# tavrel_python_tree(SOURCE_DIR DESTINATION [FILE...]): copies a folder of Python modules, and further
# generated files beside them, into the tree and compiles them there with the tree's own interpreter.
# One destination must not lie in another. Hash-checked byte code that is never compared
# with its source stays valid whatever a copy or a package does to file times. The fixed hash seed
# gives the same bytes every time.
function(tavrel_python_tree source_dir destination)
  file(GLOB_RECURSE inputs CONFIGURE_DEPENDS ${source_dir}/*.py ${source_dir}/*.plugin)
  set(copy_generated)
  if(ARGN)
    set(copy_generated COMMAND ${CMAKE_COMMAND} -E copy ${ARGN} ${TAVREL_TREE}/${destination})
  endif()
  string(MAKE_C_IDENTIFIER "python_tree_${destination}" name)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${name}.stamp)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${TAVREL_TREE}/${destination}
    COMMAND ${CMAKE_COMMAND} -E copy_directory ${source_dir} ${TAVREL_TREE}/${destination}
    ${copy_generated}
    COMMAND ${CMAKE_COMMAND} -E env --unset=PYTHONHOME --unset=PYTHONPATH PYTHONHASHSEED=0
      ${TAVREL_PYTHON37_HOME}/bin/python3.7 -B -s -S -m compileall -q
      --invalidation-mode unchecked-hash -d ${destination} ${TAVREL_TREE}/${destination}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${inputs} ${ARGN}
    COMMENT "Compiling Python modules into tree/${destination}"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${stamp})
  add_dependencies(runnable ${name})
  install(DIRECTORY ${TAVREL_TREE}/${destination}/ DESTINATION ${destination})
endfunction()

# A build tree links to the prepared interpreter; an installed tree gets a copy.
file(MAKE_DIRECTORY ${TAVREL_TREE}/bin)
file(CREATE_LINK ${TAVREL_PYTHON37_HOME} ${TAVREL_TREE}/bin/python3.7 SYMBOLIC)
install(DIRECTORY ${TAVREL_PYTHON37_HOME}/lib ${TAVREL_PYTHON37_HOME}/include DESTINATION bin/python3.7)
install(PROGRAMS ${TAVREL_PYTHON37_HOME}/bin/python3.7 DESTINATION bin/python3.7/bin)
