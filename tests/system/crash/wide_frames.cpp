// Crashes behind so many calls, each with a frame of many pages. A negative number uses the stack
// up: the last call leaves the stack pointer below the stack.
extern "C" [[gnu::noinline]] int enterWideFrames(int left) {
    char frame[32 * 1024];
    // Somebody might look at the frame: the compiler makes no loop of the recursion.
    asm volatile("" : : "r"(frame) : "memory");
    if (left == 0) {
        asm volatile("ud2");
        return 0;
    }
    return enterWideFrames(left - 1) + frame[0];
}
