tavrel_unit_test(tests_vendorid SOURCES VendorIdModuleTest.cpp LIBRARIES tavrel_main)
target_compile_definitions(tests_vendorid PRIVATE TEST_PYTHON_HOME=L"${TAVREL_PYTHON37_HOME}")

# The cipher against another implementation, in Python.
add_executable(VendorIdVectors VendorIdVectors.cpp)
target_link_libraries(VendorIdVectors PRIVATE tavrel_main)
set_target_properties(VendorIdVectors PROPERTIES
  BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "${TAVREL_PYTHON37_HOME}/lib")
find_package(Python3 REQUIRED COMPONENTS Interpreter)
add_test(NAME VendorIdCipher
  COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/vendorid_cipher_test.py
    $<TARGET_FILE:VendorIdVectors>)
set_tests_properties(VendorIdCipher PROPERTIES TIMEOUT 120)
