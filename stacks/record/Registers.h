#pragma once

#include <google_breakpad/common/minidump_format.h>
#include <sys/ucontext.h>
#include <sys/user.h>

#include <cstdint>

namespace Zendrik::Stacks {

/// A register of those that a capture has, and where others keep it.
struct Register {
    const char* name;
    int inContext;                                 ///< of ucontext_t's gregs
    unsigned long long user_regs_struct::*inUser;  ///< of PTRACE_GETREGS
    std::uint64_t MDRawContextAMD64::*inDump;
};

/// In the order of `Registers`, DWARF's.
inline constexpr Register registerTable[] = {
    {"rax", REG_RAX, &user_regs_struct::rax, &MDRawContextAMD64::rax},
    {"rdx", REG_RDX, &user_regs_struct::rdx, &MDRawContextAMD64::rdx},
    {"rcx", REG_RCX, &user_regs_struct::rcx, &MDRawContextAMD64::rcx},
    {"rbx", REG_RBX, &user_regs_struct::rbx, &MDRawContextAMD64::rbx},
    {"rsi", REG_RSI, &user_regs_struct::rsi, &MDRawContextAMD64::rsi},
    {"rdi", REG_RDI, &user_regs_struct::rdi, &MDRawContextAMD64::rdi},
    {"rbp", REG_RBP, &user_regs_struct::rbp, &MDRawContextAMD64::rbp},
    {"rsp", REG_RSP, &user_regs_struct::rsp, &MDRawContextAMD64::rsp},
    {"r8", REG_R8, &user_regs_struct::r8, &MDRawContextAMD64::r8},
    {"r9", REG_R9, &user_regs_struct::r9, &MDRawContextAMD64::r9},
    {"r10", REG_R10, &user_regs_struct::r10, &MDRawContextAMD64::r10},
    {"r11", REG_R11, &user_regs_struct::r11, &MDRawContextAMD64::r11},
    {"r12", REG_R12, &user_regs_struct::r12, &MDRawContextAMD64::r12},
    {"r13", REG_R13, &user_regs_struct::r13, &MDRawContextAMD64::r13},
    {"r14", REG_R14, &user_regs_struct::r14, &MDRawContextAMD64::r14},
    {"r15", REG_R15, &user_regs_struct::r15, &MDRawContextAMD64::r15},
    {"rip", REG_RIP, &user_regs_struct::rip, &MDRawContextAMD64::rip},
};

}  // namespace Zendrik::Stacks
