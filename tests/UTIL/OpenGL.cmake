# The probe against real X servers.
add_executable(OpenGLBootstrapClient OpenGLBootstrapClient.cpp)
target_link_libraries(OpenGLBootstrapClient PRIVATE tavrel_util X11::X11)
# No run path: a case says by LD_LIBRARY_PATH where the probe is, or that it is nowhere. Exports:
# the client stands in for some of the calls that the probe makes.
set_target_properties(OpenGLBootstrapClient PROPERTIES
  BUILD_WITH_INSTALL_RPATH ON ENABLE_EXPORTS ON)
add_test(NAME OpenGLBootstrap
  COMMAND ${TAVREL_TEST_PYTHON} -B ${CMAKE_CURRENT_SOURCE_DIR}/test_opengl_bootstrap.py
    $<TARGET_FILE:OpenGLBootstrapClient> $<TARGET_FILE_DIR:TavrelOpenGLProbe>)
set_tests_properties(OpenGLBootstrap PROPERTIES TIMEOUT 600)
