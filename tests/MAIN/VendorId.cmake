add_executable(VendorIdInterpreter VendorIdInterpreter.cpp)
target_link_libraries(VendorIdInterpreter PRIVATE tavrel_main)
target_compile_definitions(VendorIdInterpreter PRIVATE TEST_PYTHON_HOME=L"${TAVREL_PYTHON37_HOME}")
set_target_properties(VendorIdInterpreter PROPERTIES
  BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "${TAVREL_PYTHON37_HOME}/lib"
  ENABLE_EXPORTS ON)
add_test(NAME VendorIdModule
  COMMAND VendorIdInterpreter ${CMAKE_CURRENT_SOURCE_DIR}/test_vendorid.py)
set_tests_properties(VendorIdModule PROPERTIES TIMEOUT 600)
