# The probe against real X servers, asked by a client process that may die without harm.
add_executable(OpenGLBootstrapClient OpenGLBootstrapClient.cpp)
target_link_libraries(OpenGLBootstrapClient PRIVATE tavrel_util X11::X11)
# No run path: a case says by LD_LIBRARY_PATH where the probe is, or that it is nowhere.
set_target_properties(OpenGLBootstrapClient PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
tavrel_unit_test(tests_opengl_bootstrap
  SOURCES OpenGLBootstrapTest.cpp XServer.cpp
  LIBRARIES X11::X11 XRes)
add_dependencies(tests_opengl_bootstrap OpenGLBootstrapClient)
target_compile_definitions(tests_opengl_bootstrap PRIVATE
  TEST_CLIENT="$<TARGET_FILE:OpenGLBootstrapClient>"
  TEST_PROBE_FOLDER="$<TARGET_FILE_DIR:TavrelOpenGLProbe>")

# The probe against a fake X library, which stands in the test binary itself.
tavrel_unit_test(tests_opengl_probe
  SOURCES OpenGLProbeTest.cpp ${CMAKE_SOURCE_DIR}/UTIL/src/OpenGLProbe.cpp
  LIBRARIES Boost::headers)
