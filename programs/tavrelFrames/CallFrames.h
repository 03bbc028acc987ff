#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "programs/tavrelFrames/ModuleFiles.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Frames {

/// One step of the way from a thread's innermost function to its outermost one.
struct CallFrame {
    std::uint64_t pc = 0;
    bool isCall = false;   ///< `pc` is where a call returns to
    bool guessed = false;  ///< as NativeFrame has it
};

/// Walks the stacks of a capture by the modules' call frame information. Where that ends before the
/// thread's outermost function, the next caller is guessed, and the walk goes on from there.
class CallFrames {
  public:
    /// @param files whose session this object takes for itself; kept by reference, as `capture` is
    CallFrames(const Stacks::StackCapture& capture, ModuleFiles& files);
    CallFrames(const CallFrames&) = delete;
    CallFrames& operator=(const CallFrames&) = delete;
    ~CallFrames();

    /// Gives the frames of `thread` to `found`, innermost first, no more than 512.
    /// @return whether the last one is the thread's outermost
    bool walk(const Stacks::CapturedThread& thread,
              const std::function<void(const CallFrame&)>& found);

  private:
    enum class Rules { None, LeadOn, Outermost };

    static const Dwfl_Thread_Callbacks callbacks;
    static int onFrame(Dwfl_Frame* frame, void* self);
    static bool setRegisters(Dwfl_Thread* thread, void* self);

    Rules rulesAt(std::uint64_t address);
    int take(Dwfl_Frame* frame);
    void walkStretch();
    bool stepByGuess();

    const Stacks::StackCapture& capture_;
    ModuleFiles& files_;
    int ownFile_;
    Elf* machine_;

    // Of the walk in progress.
    Stacks::Registers registers_{};  // of the last frame
    // Frames that rules lead through from the last guess on, or from the thread's beginning.
    std::vector<CallFrame> stretch_;
    std::size_t room_ = 0;            // for that many
    bool broken_ = false;             // the rules led to what can't be a frame
    bool unread_ = false;             // they led to memory that was not captured
    bool stepped_ = false;            // the stretch begins behind a call that no rule led to
    bool guessed_ = false;            // such a call was found by looking for one
    std::uint64_t guessedStack_ = 0;  // the stack pointer of the last guess
    bool whole_ = false;
};

}  // namespace Zendrik::Frames
