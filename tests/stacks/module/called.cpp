// A library that calls back, through a function that is inlined. Its debug information lies in a
// file of its own.
using Callback = void (*)();

[[gnu::always_inline]] static inline void inlinedCall(Callback callback) {
    callback();
    asm volatile("");  // no jump instead of the call
}

extern "C" void callThroughModule(Callback callback) {
    inlinedCall(callback);
    asm volatile("");
}
