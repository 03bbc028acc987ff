# Third-party libraries: Debian's from the system, the others as scripts/setup.sh left them in .deps/.

set(TAVREL_DEPS ${CMAKE_SOURCE_DIR}/.deps CACHE PATH "Folder that scripts/setup.sh prepared")
foreach(dependency python3.7 boost_python breakpad)
  if(NOT EXISTS ${TAVREL_DEPS}/${dependency}/.stamp)
    message(FATAL_ERROR "${TAVREL_DEPS}/${dependency} is missing: run scripts/setup.sh")
  endif()
endforeach()

# The tree carries no Boost: the static archives end up inside the programs.
set(Boost_USE_STATIC_LIBS ON)
find_package(Boost 1.70 REQUIRED COMPONENTS program_options filesystem thread chrono system date_time)
find_package(Threads REQUIRED)
find_package(X11 REQUIRED)
find_package(OpenGL REQUIRED COMPONENTS OpenGL GLX)

set(TAVREL_PYTHON37_HOME ${TAVREL_DEPS}/python3.7)
add_library(Python37::Python SHARED IMPORTED)
set_target_properties(Python37::Python PROPERTIES
  IMPORTED_LOCATION ${TAVREL_PYTHON37_HOME}/lib/libpython3.7m.so.1.0
  IMPORTED_SONAME libpython3.7m.so.1.0
  INTERFACE_INCLUDE_DIRECTORIES ${TAVREL_PYTHON37_HOME}/include/python3.7m)
# An extension module takes the interpreter's symbols from the process that loads it.
add_library(Python37::Module INTERFACE IMPORTED)
set_target_properties(Python37::Module PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${TAVREL_PYTHON37_HOME}/include/python3.7m)
set(TAVREL_EXTENSION_SUFFIX .cpython-37m-x86_64-linux-gnu.so)

# Its exception alone: what it has besides, scripts/setup.sh doesn't build.
add_library(Boost::python37 STATIC IMPORTED)
set_target_properties(Boost::python37 PROPERTIES
  IMPORTED_LOCATION ${TAVREL_DEPS}/boost_python/libboost_python37.a
  INTERFACE_COMPILE_DEFINITIONS BOOST_PYTHON_STATIC_LIB
  INTERFACE_LINK_LIBRARIES "Boost::headers;Python37::Python")

add_library(Breakpad::client STATIC IMPORTED)
set_target_properties(Breakpad::client PROPERTIES
  IMPORTED_LOCATION ${TAVREL_DEPS}/breakpad/lib/libbreakpad_client.a
  INTERFACE_INCLUDE_DIRECTORIES ${TAVREL_DEPS}/breakpad/include
  INTERFACE_COMPILE_DEFINITIONS __STDC_FORMAT_MACROS
  INTERFACE_LINK_LIBRARIES Threads::Threads)
# Reads minidumps.
add_library(Breakpad::processor STATIC IMPORTED)
set_target_properties(Breakpad::processor PROPERTIES
  IMPORTED_LOCATION ${TAVREL_DEPS}/breakpad/lib/libbreakpad.a
  INTERFACE_INCLUDE_DIRECTORIES ${TAVREL_DEPS}/breakpad/include
  INTERFACE_COMPILE_DEFINITIONS __STDC_FORMAT_MACROS
  INTERFACE_LINK_LIBRARIES Breakpad::client)
# Programs that tests read dumps with.
set(TAVREL_BREAKPAD_BIN ${TAVREL_DEPS}/breakpad/bin)

# The system's own Python, which sees the modules of Debian's packages, for tests and measurements.
find_program(TAVREL_TEST_PYTHON NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
find_program(TAVREL_TEST_PYTHON NAMES python3 REQUIRED)
