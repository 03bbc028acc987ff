#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <map>
#include <vector>

#include "programs/tavrelFrames/ModuleFiles.h"
#include "stacks/native/NativeFrames.h"

namespace Zendrik::Frames {

/// Names for addresses of code: the function by the symbol tables, the place in the source and the
/// functions that were inlined there by debug information.
class FrameNames {
  public:
    /// @param files kept by reference
    explicit FrameNames(ModuleFiles& files) : files_(files) {}

    /// What stands at `pc`: the functions inlined there, innermost first, then the one that has the
    /// frame. Never empty; what is not known stays empty in it.
    /// @param isCall `pc` is where a call returns to: the call is the instruction in front of it,
    ///               which may be the last of its function
    const std::vector<Stacks::NativeFrame>& at(std::uint64_t pc, bool isCall);

  private:
    ModuleFiles& files_;
    // Many threads wait in the same few places, and to search a symbol table takes its time.
    std::map<std::uint64_t, std::vector<Stacks::NativeFrame>> known_;
};

}  // namespace Zendrik::Frames
