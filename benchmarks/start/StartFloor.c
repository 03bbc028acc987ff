// The least that a start of the application can cost: the interpreter of the tree, embedded with
// the same home, imports the modules that a start imports, in their order, and ends.
//
//   StartFloor HOME LIST
//
// LIST holds the search path on its first line, entries joined with ":", then a module name a line.

#include <Python.h>
#include <stdio.h>
#include <string.h>

static int importModules(FILE* list, char* line, int size) {
    while (fgets(line, size, list) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        PyObject* module = PyImport_ImportModule(line);
        if (module == NULL) {
            PyErr_Print();
            return 1;
        }
        Py_DECREF(module);
    }
    return 0;
}

int main(int argc, char** argv) {
    static char line[65536];
    FILE* list = argc == 3 ? fopen(argv[2], "re") : NULL;
    if (list == NULL || fgets(line, sizeof line, list) == NULL) {
        fprintf(stderr, "usage: StartFloor HOME LIST\n");
        return 2;
    }
    line[strcspn(line, "\n")] = '\0';
    Py_SetPythonHome(Py_DecodeLocale(argv[1], NULL));
    Py_Initialize();
    wchar_t* path = Py_DecodeLocale(line, NULL);
    PySys_SetPath(path);
    PyMem_RawFree(path);
    int status = importModules(list, line, sizeof line);
    fclose(list);
    Py_Finalize();
    return status;
}
