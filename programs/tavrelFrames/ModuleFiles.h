#pragma once

#include <elfutils/libdwfl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "stacks/record/StackCapture.h"

namespace Zendrik::Frames {

/// Writes a line to standard output; the end of this process if it isn't read.
void say(const std::string& line);

/// A session of libdwfl with the files of a capture as its modules. A file is opened once something
/// in it is asked for, and only then; one that is not the file that was mapped (another build
/// identifier), and one that is to be left out, count as missing.
///
/// Debug information of its own file is found by build identifier and beside the module, on this
/// machine only.
class ModuleFiles {
  public:
    /// @param capture kept by reference
    /// @param leftOut indices of files that are not to be opened
    ModuleFiles(const Stacks::StackCapture& capture, std::set<std::size_t> leftOut);

    Dwfl* session() const { return session_.get(); }

    /// The module that `address` lies in, null for none. From here on it takes the blame.
    Dwfl_Module* at(std::uint64_t address);

    /// Whether the code in front of `address` is a call.
    bool isReturnAddress(std::uint64_t address);

    /// find_elf of this session: the descriptor of the module's file, or -1.
    int open(std::size_t file, char** name);

  private:
    struct End {
        void operator()(Dwfl* session) const { dwfl_end(session); }
    };

    void blame(std::size_t file);

    const Stacks::StackCapture& capture_;
    std::set<std::size_t> leftOut_;
    std::optional<std::size_t> blamed_;
    std::unique_ptr<Dwfl, End> session_;
};

}  // namespace Zendrik::Frames
