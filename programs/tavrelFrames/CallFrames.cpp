#include "programs/tavrelFrames/CallFrames.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "stacks/native/StackGuess.h"

namespace Zendrik::Frames {

namespace {

using Stacks::instructionPointerRegister;
using Stacks::stackPointerRegister;

constexpr std::size_t mostFrames = 512;

// The one thread that the library ever hears of: the one that is being walked.
constexpr pid_t theThread = 1;

pid_t nextThread(Dwfl*, void* self, void** thread) {
    const bool first = *thread == nullptr;
    *thread = self;
    return first ? theThread : 0;
}

bool getThread(Dwfl*, pid_t, void* self, void** thread) {
    *thread = self;
    return true;
}

}  // namespace

const Dwfl_Thread_Callbacks CallFrames::callbacks = {
    nextThread,
    getThread,
    [](Dwfl*, Dwarf_Addr address, Dwarf_Word* word, void* self) {
        const auto found = Stacks::wordAt(static_cast<CallFrames*>(self)->capture_, address);
        *word = found.value_or(0);
        static_cast<CallFrames*>(self)->unread_ |= !found;
        return found.has_value();
    },
    setRegisters,
    nullptr,
    nullptr};

// A file of this program's own shows the library which machine it is about; a module of the capture
// may be damaged.
CallFrames::CallFrames(const Stacks::StackCapture& capture, ModuleFiles& files)
    : capture_(capture),
      files_(files),
      ownFile_(open("/proc/self/exe", O_RDONLY | O_CLOEXEC)),
      machine_(elf_begin(ownFile_, ELF_C_READ_MMAP, nullptr)) {
    static_cast<void>(dwfl_attach_state(files_.session(), machine_, theThread, &callbacks,
                                        this));  // or no frames
}

CallFrames::~CallFrames() {
    static_cast<void>(elf_end(machine_));
    close(ownFile_);
}

bool CallFrames::walk(const Stacks::CapturedThread& thread,
                      const std::function<void(const CallFrame&)>& found) {
    registers_ = thread.registers;
    stepped_ = guessed_ = whole_ = false;
    std::size_t frames = 0;
    do {
        room_ = mostFrames - frames;
        walkStretch();
        for (const CallFrame& frame : stretch_) {
            found(frame);
        }
        frames += stretch_.size();
    } while (!whole_ && frames < mostFrames && stepByGuess());
    return whole_;
}

void CallFrames::walkStretch() {
    stretch_.clear();
    broken_ = unread_ = false;
    const Stacks::Registers begin = registers_;
    const int result = dwfl_getthread_frames(files_.session(), theThread, onFrame, this);
    if (stretch_.empty()) {
        // The library could not even begin: the first frame is known all the same.
        stretch_.push_back(
            {begin[instructionPointerRegister] + (stepped_ ? 1 : 0), stepped_, guessed_});
    } else if (guessed_ && (broken_ || result == 0) && !whole_ && stretch_.size() == 1) {
        // A guess that was called from nowhere is what a function has left on the stack.
        stretch_.clear();
        registers_ = begin;
    }
    // 0: the way ended at the address 0, as it does above code that was not written in C.
    whole_ = whole_ || (result == 0 && !guessed_ && !unread_ &&
                        Stacks::wordAt(capture_, registers_[stackPointerRegister]));
}

bool CallFrames::stepByGuess() {
    if (guessed_) {
        // Damaged rules may lead down again, and a search of the same memory would find the same.
        registers_[stackPointerRegister] =
            std::max(registers_[stackPointerRegister], guessedStack_);
    }
    const std::optional<Stacks::Registers> caller = Stacks::guessCaller(
        capture_, registers_, [this](std::uint64_t word) { return files_.isReturnAddress(word); });
    if (caller) {
        // A call to where there is no code has left nothing on the stack but its return address.
        const bool isSure = !guessed_ &&
                            files_.at(registers_[instructionPointerRegister]) == nullptr &&
                            (*caller)[stackPointerRegister] ==
                                registers_[stackPointerRegister] + sizeof(std::uint64_t);
        registers_ = *caller;
        // The rules that hold are those of the call, and its function may end with it.
        --registers_[instructionPointerRegister];
        stepped_ = true;
        guessed_ = !isSure;
        guessedStack_ = registers_[stackPointerRegister];
    }
    return caller.has_value();
}

bool CallFrames::setRegisters(Dwfl_Thread* thread, void* self) {
    const Stacks::Registers& registers = static_cast<CallFrames*>(self)->registers_;
    return dwfl_thread_state_registers(thread, 0, registers.size(), registers.data());
}

int CallFrames::onFrame(Dwfl_Frame* frame, void* self) {
    return static_cast<CallFrames*>(self)->take(frame);
}

int CallFrames::take(Dwfl_Frame* frame) {
    Dwarf_Addr pc = 0;
    bool isActivation = false;
    if (!dwfl_frame_pc(frame, &pc, &isActivation)) {
        return DWARF_CB_ABORT;
    }
    if (stepped_ && stretch_.empty()) {
        ++pc;  // stepByGuess took it away
        isActivation = false;
    }
    broken_ = guessed_ && !isActivation && !files_.isReturnAddress(pc);
    if (broken_) {
        return DWARF_CB_ABORT;
    }
    stretch_.push_back({pc, !isActivation, guessed_});
    for (unsigned i = 0; i < registers_.size(); ++i) {
        Dwarf_Word value = 0;
        if (dwfl_frame_reg(frame, i, &value) == 0) {
            registers_[i] = value;
        }
    }
    registers_[instructionPointerRegister] = pc;
    const Rules rules = rulesAt(pc - (isActivation ? 0 : 1));
    whole_ = rules == Rules::Outermost;
    // Without rules the library would follow the frame pointer, and not say so.
    return stretch_.size() < room_ && rules == Rules::LeadOn ? DWARF_CB_OK : DWARF_CB_ABORT;
}

CallFrames::Rules CallFrames::rulesAt(std::uint64_t address) {
    Dwfl_Module* const module = files_.at(address);
    if (module == nullptr) {
        return Rules::None;
    }
    for (const auto information : {dwfl_module_eh_cfi, dwfl_module_dwarf_cfi}) {
        Dwarf_Addr bias = 0;
        Dwarf_CFI* const cfi = information(module, &bias);
        Dwarf_Frame* frame = nullptr;
        if (cfi == nullptr || dwarf_cfi_addrframe(cfi, address - bias, &frame) != 0) {
            continue;
        }
        Dwarf_Op memory[3];
        Dwarf_Op* operations = nullptr;
        std::size_t count = 0;
        const int result =
            dwarf_frame_register(frame, instructionPointerRegister, memory, &operations, &count);
        std::free(frame);
        // No operations in the caller's memory: the return address is undefined.
        return result == 0 && count == 0 && operations == memory ? Rules::Outermost : Rules::LeadOn;
    }
    return Rules::None;
}

}  // namespace Zendrik::Frames
