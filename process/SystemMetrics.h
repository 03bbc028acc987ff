#pragma once

/// What Linux reports about the machine and about this process: memory, processor time, input and
/// output, threads, descriptors. Each function asks its source afresh and keeps nothing, so all of
/// them may be called in any thread at any time. They open files or walk folders: fine for a status
/// line, too slow for an inner loop.
///
/// They are for native code of the application that measures itself, which links tavrel_process for
/// them. Nothing of the launcher calls them.
///
/// Unless said otherwise a failure gives zeros. A zero is also what a kernel gives that does not
/// know the figure, or a machine without swap: the two can't be distinguished.
///
/// Memory is in bytes, time in microseconds. Those that return a string or a vector, or read a file
/// as a text, throw std::bad_alloc.

#include <cstdint>
#include <string>
#include <vector>

namespace Plexum3::Base {

struct SystemMemory {
    std::uint64_t total = 0;
    std::uint64_t free = 0;
    std::uint64_t swapTotal = 0;
    std::uint64_t swapFree = 0;
};

struct ProcessMemory {
    std::uint64_t resident = 0;
    std::uint64_t peakResident = 0;
    std::uint64_t swap = 0;
};

/// Since the machine booted. `user` includes nice, `system` interrupts and stolen time, `idle`
/// waiting for input and output.
struct CpuTimes {
    std::uint64_t user = 0;  ///< here and in the next two: processors that this process may run on
    std::uint64_t system = 0;
    std::uint64_t idle = 0;
    std::uint64_t allUser = 0;  ///< all processors of the machine
    std::uint64_t allSystem = 0;
    std::uint64_t allIdle = 0;
};

struct LoadCounts {
    std::int32_t totalTasks = 0;
    std::int32_t runnableTasks = 0;
};

struct ProcessIo {
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesWritten = 0;
};

struct ProcessCpuTime {
    std::uint64_t user = 0;
    std::uint64_t system = 0;
};

struct ThreadCounts {
    std::int32_t threads = 0;
    std::int32_t runningThreads = 0;
};

/// Of the processor, in hertz: the rate of its time-stamp counter (cpu0/tsc_freq_khz under
/// /sys/devices/system/cpu), else its nominal maximum (cpu0/cpufreq/cpuinfo_max_freq), else the
/// momentary clock of the first processor in /proc/cpuinfo.
std::int64_t getCpuFrequency();

/// Of the machine, from /proc/meminfo.
SystemMemory getSystemMemory();

/// Of this process, from /proc/self/status.
ProcessMemory getProcessMemory();

/// Of the machine, from /proc/loadavg. Tasks are the kernel's: processes and their threads.
LoadCounts getLoadCounts();

/// Bytes that went through read and write calls of this process, whether or not they reached a
/// disk, from /proc/self/io.
ProcessIo getProcessIo();

/// Spent by this process in all its threads, from getrusage.
ProcessCpuTime getProcessCpuTime();

/// From /proc/stat, distinguished by sched_getaffinity. Processors from 1024 upward count as
/// allowed.
CpuTimes getCpuTimes();

/// Size of the calling thread's stack and how much of it is in use at this call, from
/// pthread_getattr_np. Result 0, or the error number of a call that failed.
int getStackUsage(std::uint64_t& stackSize, std::uint64_t& stackUsed);

/// From /proc/self/task. A thread whose name has a blank or a line end in it counts as not running.
/// @throw boost::filesystem::filesystem_error if the folder can't be read
ThreadCounts getThreadCounts();

/// Entries of /proc/self/fd: one more than the process holds, for the folder being read is among
/// them.
/// @throw boost::filesystem::filesystem_error if the folder can't be read
int getOpenDescriptorCount();

/// Numbers of the processors that this process may run on, ascending, out of those online and below
/// 1024; from sched_getaffinity. Empty on failure.
std::vector<int> getAllowedCpus();

int getProcessId();

/// The kernel's number for the calling thread.
std::int64_t getThreadId();

/// Canonical path of the program or library that is loaded at `address`, from dladdr; empty if
/// there is none. A relative name, as the program's own may be, is taken against the current
/// directory.
/// @throw boost::filesystem::filesystem_error if the file or the current directory has gone
std::string getModulePath(const void* address);

}  // namespace Plexum3::Base
