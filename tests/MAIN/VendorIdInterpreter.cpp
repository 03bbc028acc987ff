// An interpreter that has the module built in, as the launcher's has, and runs a Python file. What
// the file can't bring about itself is exported for its ctypes.

#include "MAIN/src/VendorIdModule.h"

extern "C" {

/// The interpreter keeps memory for the whole process on purpose, and so does the module.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
const char* __asan_default_options() {
    return "detect_leaks=0";
}

/// GetVendorId while PyMem_Malloc gives nothing.
unsigned char* getVendorIdWithoutMemory(unsigned char** buffer, std::int32_t* length) {
    PyMemAllocatorEx usual;
    PyMem_GetAllocator(PYMEM_DOMAIN_MEM, &usual);
    PyMemAllocatorEx refusing = usual;
    refusing.malloc = [](void*, std::size_t) -> void* { return nullptr; };
    PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &refusing);
    unsigned char* const result = GetVendorId(buffer, length);
    PyMem_SetAllocator(PYMEM_DOMAIN_MEM, &usual);
    return result;
}

}  // extern "C"

int main(int /*argc*/, char** argv) {
    static wchar_t home[] = TEST_PYTHON_HOME;
    Py_SetPythonHome(home);
    Py_NoSiteFlag = 1;
    Py_DontWriteBytecodeFlag = 1;
    RegisterVendorIdModule();
    wchar_t* arguments[] = {Py_DecodeLocale(argv[0], nullptr), Py_DecodeLocale(argv[1], nullptr)};
    return Py_Main(2, arguments);
}
