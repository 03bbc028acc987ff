#pragma once

/* Where the fields of the interpreter's records are, in bytes from their start. The numbers come
 * from the interpreter's own headers. Those are C (a C++ compiler stumbles over their atomics) and
 * claim many names, which is why nothing else in this folder includes them. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct PythonLayout {
    struct {
        size_t size;
        size_t interpreters; /* the head of their list */
        size_t currentThread;
        size_t lockIsTaken;
        size_t lastLockHolder;
    } runtime;
    struct {
        size_t size; /* up to the last of the fields here, as for the next ones */
        size_t next;
        size_t threads; /* the head of their list */
    } interpreter;
    struct {
        size_t size;
        size_t next;
        size_t frame;
        size_t threadPointer;
    } thread;
    struct {
        size_t size;
        size_t type;
        size_t back;
        size_t code;
        size_t trace;
        size_t lastInstruction;
        size_t line;
    } frame;
    struct {
        size_t size;
        size_t type;
        size_t firstLine;
        size_t file;
        size_t name;
        size_t lineTable;
    } code;
    struct {
        size_t length;
        size_t content;
    } bytes;
    struct {
        size_t size;
        size_t length;
        size_t state;
        size_t wide;
        size_t asciiSize; /* behind which the characters of a compact ASCII text are */
        size_t wideLength;
        size_t compactSize; /* the same for other compact texts */
        size_t content;
    } text;
};

extern const struct PythonLayout pythonLayout;

#ifdef __cplusplus
}
#endif
