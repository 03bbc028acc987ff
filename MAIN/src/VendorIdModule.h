#pragma once

#include <Python.h>

#include <cstdint>

// The interpreter's built-in module "vendorid": a version text and a capsule, _C_API, by which
// native code reaches GetVendorId without being linked against the launcher.

/// Makes the module known to the interpreter that is started next. Call it once, on the main
/// thread, before Py_Initialize; after it the call has no effect.
void RegisterVendorIdModule();

/// The module's initialisation function. It fills the module but returns the status of its last
/// step, 0, so that `import vendorid` raises SystemError. This is what callers are built on: it
/// must stay.
extern "C" PyObject* PyInit_vendorid();

/// Puts the 32 bytes of the value into a buffer of PyMem_Malloc, which the caller gives back, and
/// returns it; without memory null, *length being 32 either way. With the interpreter lock held.
extern "C" unsigned char* GetVendorId(unsigned char** buffer, std::int32_t* length);
