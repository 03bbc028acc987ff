// Enters functions until the stack is used up, each with a frame of many pages: the last one leaves
// the stack pointer below the stack.
extern "C" [[gnu::noinline]] int enterWideFrames(int depth) {
    char frame[32 * 1024];
    // Somebody might look at the frame: the compiler makes no loop of the recursion.
    asm volatile("" : : "r"(frame) : "memory");
    return depth < 0 ? 0 : enterWideFrames(depth + 1) + frame[0];
}
