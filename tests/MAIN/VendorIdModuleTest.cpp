#include "MAIN/src/VendorIdModule.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

/// The interpreter keeps memory for the whole process on purpose, and so does the module.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

namespace {

/// One interpreter for the test, with the module registered before it starts.
class VendorIdModule : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        static wchar_t home[] = TEST_PYTHON_HOME;
        Py_SetPythonHome(home);
        Py_NoSiteFlag = 1;
        RegisterVendorIdModule();
        Py_Initialize();
    }
    static void TearDownTestSuite() { Py_Finalize(); }
};

std::string takeVendorId() {
    unsigned char* buffer = nullptr;
    std::int32_t length = 0;
    unsigned char* const result = GetVendorId(&buffer, &length);
    EXPECT_EQ(result, buffer);
    EXPECT_EQ(length, 32);
    std::string value(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(length));
    PyMem_Free(buffer);
    return value;
}

TEST_F(VendorIdModule, IsBuiltInAndCannotBeImported) {
    EXPECT_EQ(PyRun_SimpleString("import sys\n"
                                 "assert 'vendorid' in sys.builtin_module_names\n"
                                 "try:\n"
                                 "    import vendorid\n"
                                 "except SystemError:\n"
                                 "    pass\n"
                                 "else:\n"
                                 "    raise AssertionError('imported')\n"
                                 "assert 'vendorid' not in sys.modules\n"),
              0);
}

TEST_F(VendorIdModule, CapsuleLeadsToTheFunction) {
    EXPECT_EQ(PyInit_vendorid(), nullptr);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    // Nobody was handed the module, but the collector knows it.
    ASSERT_EQ(PyRun_SimpleString("import gc, types\n"
                                 "found = [o for o in gc.get_objects()\n"
                                 "         if type(o) is types.ModuleType\n"
                                 "         and o.__name__ == 'vendorid']\n"
                                 "capsule = found[0]._C_API\n"
                                 "assert found[0].__version__ == '1.0.0'\n"
                                 "assert found[0].__doc__ == ''\n"
                                 "del found\n"),
              0);
    PyObject* const capsule = PyObject_GetAttrString(PyImport_AddModule("__main__"), "capsule");
    ASSERT_NE(capsule, nullptr);
    EXPECT_EQ(PyCapsule_GetPointer(capsule, nullptr), reinterpret_cast<void*>(&GetVendorId));
    EXPECT_EQ(PyCapsule_GetName(capsule), nullptr);
    EXPECT_EQ(PyCapsule_GetDestructor(capsule), nullptr);
    // The module's, the one that is never given back, __main__'s and this test's.
    EXPECT_EQ(Py_REFCNT(capsule), 4);
    Py_DECREF(capsule);
}

TEST_F(VendorIdModule, ValueIsTheSameInBuffersOfTheirOwnAndStandsNowhereInTheProgram) {
    const std::string value = takeVendorId();
    EXPECT_EQ(takeVendorId(), value);

    unsigned char* first = nullptr;
    unsigned char* second = nullptr;
    std::int32_t length = 0;
    GetVendorId(&first, &length);
    GetVendorId(&second, &length);
    EXPECT_NE(first, second);
    PyMem_Free(first);
    PyMem_Free(second);

    std::ifstream file("/proc/self/exe", std::ios::binary);
    const std::string program((std::istreambuf_iterator<char>(file)), {});
    ASSERT_NE(program.find("__version__"), std::string::npos);
    EXPECT_EQ(program.find(value), std::string::npos);
    EXPECT_EQ(program.find(value.substr(8, 16)), std::string::npos);
}

void* refuseMemory(void* /*context*/, std::size_t /*size*/) {
    return nullptr;
}

TEST_F(VendorIdModule, WithoutMemoryThePointersAreNullAndTheLengthIsNot) {
    PyMemAllocatorEx usual;
    PyMem_GetAllocator(PYMEM_DOMAIN_MEM, &usual);
    PyMemAllocatorEx refusing = usual;
    refusing.malloc = refuseMemory;
    unsigned char unset = 0;
    unsigned char* buffer = &unset;
    std::int32_t length = 0;
    PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &refusing);
    unsigned char* const result = GetVendorId(&buffer, &length);
    PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &usual);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(length, 32);
}

}  // namespace
