#include <csignal>
#include <cstring>

#include "base/PrintableText.h"
#include "programs/CrashReporterTavrel/report/CrashReport.h"
#include "stacks/record/Registers.h"

namespace Zendrik::Reporter {

namespace {

using Stacks::CapturedSignal;
using Zendrik::Base::hexadecimal;

struct Code {
    int signal;
    int code;
    const char* name;
};

constexpr Code codes[] = {
    {SIGSEGV, SEGV_MAPERR, "SEGV_MAPERR"},    {SIGSEGV, SEGV_ACCERR, "SEGV_ACCERR"},
    {SIGSEGV, SEGV_BNDERR, "SEGV_BNDERR"},    {SIGSEGV, SEGV_PKUERR, "SEGV_PKUERR"},
    {SIGBUS, BUS_ADRALN, "BUS_ADRALN"},       {SIGBUS, BUS_ADRERR, "BUS_ADRERR"},
    {SIGBUS, BUS_OBJERR, "BUS_OBJERR"},       {SIGBUS, BUS_MCEERR_AR, "BUS_MCEERR_AR"},
    {SIGBUS, BUS_MCEERR_AO, "BUS_MCEERR_AO"}, {SIGFPE, FPE_INTDIV, "FPE_INTDIV"},
    {SIGFPE, FPE_INTOVF, "FPE_INTOVF"},       {SIGFPE, FPE_FLTDIV, "FPE_FLTDIV"},
    {SIGFPE, FPE_FLTOVF, "FPE_FLTOVF"},       {SIGFPE, FPE_FLTUND, "FPE_FLTUND"},
    {SIGFPE, FPE_FLTRES, "FPE_FLTRES"},       {SIGFPE, FPE_FLTINV, "FPE_FLTINV"},
    {SIGFPE, FPE_FLTSUB, "FPE_FLTSUB"},       {SIGILL, ILL_ILLOPC, "ILL_ILLOPC"},
    {SIGILL, ILL_ILLOPN, "ILL_ILLOPN"},       {SIGILL, ILL_ILLADR, "ILL_ILLADR"},
    {SIGILL, ILL_ILLTRP, "ILL_ILLTRP"},       {SIGILL, ILL_PRVOPC, "ILL_PRVOPC"},
    {SIGILL, ILL_PRVREG, "ILL_PRVREG"},       {SIGILL, ILL_COPROC, "ILL_COPROC"},
    {SIGILL, ILL_BADSTK, "ILL_BADSTK"},       {SIGTRAP, TRAP_BRKPT, "TRAP_BRKPT"},
    {SIGTRAP, TRAP_TRACE, "TRAP_TRACE"},
};

// Addresses have 48 bits, the last of which fills the others.
bool isCanonical(std::uint64_t address) {
    constexpr int bitsAbove = 16;
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(address << bitsAbove) >>
                                      bitsAbove) == address;
}

std::string impossibleAddresses(const Stacks::StackCapture& capture) {
    std::string list;
    for (const Stacks::CapturedThread& thread : capture.threads) {
        for (std::size_t i = 0; thread.tid == capture.crashedTid && i < thread.registers.size();
             ++i) {
            if (!isCanonical(thread.registers[i])) {
                list += (list.empty() ? "" : ", ") + std::string(Stacks::registerTable[i].name) +
                        " is " + hexadecimal(thread.registers[i]);
            }
        }
    }
    return list;
}

bool isSent(int code) {
    return code == SI_USER || code == SI_QUEUE || code == SI_TKILL;
}

std::string senderText(const Stacks::StackCapture& capture) {
    const pid_t sender = capture.signal.sender;
    return sender == 0             ? ", sent by a process that can't be seen from here"
           : sender == capture.pid ? ", sent by itself"
                                   : ", sent by process " + std::to_string(sender);
}

std::string originText(const Stacks::StackCapture& capture) {
    const CapturedSignal& signal = capture.signal;
    if (isSent(signal.code)) {
        return senderText(capture);
    }
    if (signal.code == SI_KERNEL && (signal.number == SIGSEGV || signal.number == SIGBUS)) {
        // A misaligned access by a vector instruction ends here, too.
        const std::string registers = impossibleAddresses(capture);
        return " (general protection), which tells no address" +
               (registers.empty() ? "" : "; probably a non-canonical one: " + registers);
    }
    for (const Code& code : codes) {
        if (code.signal == signal.number && code.code == signal.code) {
            return std::string(" (") + code.name + ") at " + hexadecimal(signal.address);
        }
    }
    return " (code " + std::to_string(signal.code) + ")";
}

}  // namespace

std::string signalText(const Stacks::StackCapture& capture) {
    const int number = capture.signal.number;
    if (number == 0) {
        return "unknown";
    }
    const char* const name = sigabbrev_np(number);
    return (name == nullptr ? "signal " + std::to_string(number) : std::string("SIG") + name) +
           originText(capture);
}

}  // namespace Zendrik::Reporter
