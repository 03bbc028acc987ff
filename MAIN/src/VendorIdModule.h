#pragma once

#include <Python.h>

#include <cstdint>

/// The interpreter's built-in module "vendorid": a version text and a capsule, _C_API, with a
/// pointer to GetVendorId. Native code that is linked against neither the launcher nor this header
/// reaches the function through the capsule.

/// Makes the module known to the interpreter that is started next. Call it once, on the main
/// thread, before Py_Initialize; after it the call has no effect.
void RegisterVendorIdModule();

/// The module's initialisation function, called by the interpreter with its lock held. It fills the
/// module but hands back the status of its last step, 0, in place of the module, so that
/// `import vendorid` raises SystemError. This is what callers are built on: it must stay.
extern "C" PyObject* PyInit_vendorid();

/// Puts the 32 bytes of the value, made anew at each call, into a buffer of PyMem_Malloc that the
/// caller gives back with PyMem_Free, and returns the buffer, which *buffer holds as well. Without
/// memory both are null. *length is 32 either way: test the pointer. Any thread that holds the
/// interpreter lock may call it.
extern "C" unsigned char* GetVendorId(unsigned char** buffer, std::int32_t* length);
