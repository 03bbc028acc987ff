// The least that a start of the application can cost: the interpreter of the tree, embedded with
// the same home and search path, and nothing of the launcher around it.
//
//   StartFloor TREE LIST import    imports the modules that a batch start imports, in their order
//   StartFloor TREE LIST JOB       runs the entry script for a batch of that one file
//
// LIST holds the search path on its first line, entries joined with ":", then a module name a line.

#include <Python.h>
#include <marshal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

extern const unsigned char entryScript[];
extern const uint32_t entryScriptLength;

static char line[65536];

static int readLine(FILE* list) {
    if (fgets(line, sizeof line, list) == NULL) {
        return 0;
    }
    line[strcspn(line, "\n")] = '\0';
    return 1;
}

static int importModules(FILE* list) {
    while (readLine(list)) {
        PyObject* module = PyImport_ImportModule(line);
        if (module == NULL) {
            PyErr_Print();
            return 1;
        }
        Py_DECREF(module);
    }
    return 0;
}

// What the launcher would have given the script: the configuration, its arguments, its attributes.
static int prepareScript(const char* tree, const char* job) {
    snprintf(line, sizeof line,
             "import ConfigurationAPI_cmodule as configuration, os, sys\n"
             "configuration.set('TAVREL_ROOT', '%s')\n"
             "configuration.set('TAVREL_TMPDIR', os.environ['TMPDIR'] + '/tavrel_tmpdir_%d')\n"
             "configuration.set('RUNTIME_USE_SYNC', '1')\n"
             "sys.argv = ['%s/bin/python/Main/Main.pyc', '--batch', '%s']\n"
             "sys.tavrel_verbosityLevel = 1\n"
             "sys.tavrel_BUILD_TIME = ''\n"
             "sys.tavrel_checkInterrupt = lambda: None\n",
             tree, (int)getpid(), tree, job);
    return PyRun_SimpleString(line);
}

static int runScript(const char* tree, const char* job) {
    if (prepareScript(tree, job) != 0) {
        return 1;
    }
    PyObject* code = PyMarshal_ReadObjectFromString((const char*)entryScript, entryScriptLength);
    PyObject* module = PyImport_ExecCodeModule("__main__", code);
    if (module == NULL) {
        PyErr_Print();  // leaves with the status of a SystemExit, having finalised
        return 1;
    }
    Py_DECREF(module);
    return 0;
}

int main(int argc, char** argv) {
    FILE* list = argc == 4 ? fopen(argv[2], "re") : NULL;
    if (list == NULL || !readLine(list)) {
        fprintf(stderr, "usage: StartFloor TREE LIST import|JOB\n");
        return 2;
    }
    wchar_t* path = Py_DecodeLocale(line, NULL);
    snprintf(line, sizeof line, "%s/bin/python3.7", argv[1]);
    Py_SetPythonHome(Py_DecodeLocale(line, NULL));
    Py_Initialize();
    PySys_SetPath(path);
    PyMem_RawFree(path);
    int status = strcmp(argv[3], "import") == 0 ? importModules(list) : runScript(argv[1], argv[3]);
    fclose(list);
    Py_Finalize();
    return status;
}
