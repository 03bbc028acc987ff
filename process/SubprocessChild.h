#pragma once

/// The half of Subprocess that runs between fork and exec. Everything a child needs is built by the
/// parent before the fork and reaches it as a struct of pointers into the parent's memory image.
///
/// The functions run in a forked child of a process that may have many threads, with all signals
/// blocked on entry. They make system calls only: no heap, no lock, no return to the caller, out by
/// exec or _exit. The exception is childCloseDescriptors, which returns.

#include <cstddef>
#include <type_traits>

#include "process/Subprocess.h"

namespace Plexum3::Base {

/// Which descriptors from 3 up to `limit` - 1 survive. At and above `limit` none is touched.
struct ChildDescriptors {
    const int* kept;        ///< ascending, no repeats; entries below 3 mean nothing
    std::size_t keptCount;  ///< may be 0, `kept` may then be null
    long limit;             ///< sysconf(_SC_OPEN_MAX)
};

/// What the chain of a daemonized launch needs.
struct DaemonPlan {
    char* const* argv;  ///< ends in a null pointer
    long openLimit;     ///< sysconf(_SC_OPEN_MAX)
};

/// What the child of a launch with a handle needs.
struct ChildPlan {
    const SubprocessOptions* options;  ///< but for what the next three make of it
    char* const* argv;                 ///< ends in a null pointer
    char** environment;                ///< ends in a null pointer
    ChildDescriptors descriptors;
    int terminationWriteEnd;
    int statusReadEnd;
    int statusWriteEnd;
};

static_assert(std::is_trivially_destructible_v<DaemonPlan>, "the child leaves without destructors");
static_assert(std::is_trivially_destructible_v<ChildPlan>, "the child leaves without destructors");

/// Closes the descriptors that are not kept, at a cost that depends on how many are open and not on
/// the limit: close_range(2) over the gaps of the kept list (Linux 5.9), or one close(2) for each
/// entry of /proc/self/fd where the kernel or a sandbox refuses that call. Only without either is
/// every number up to the limit tried. What ends up open is the same in all cases. Errors are
/// ignored.
void childCloseDescriptors(const ChildDescriptors& descriptors);

/// The first child of a daemonized launch, to the end: forks twice more and becomes the program.
[[noreturn]] void childBecomeDaemon(const DaemonPlan& plan);

/// The child of a launch with a handle, to the end. A failure is written to the status pipe as a
/// native int before it is reported.
[[noreturn]] void childBecomeProgram(const ChildPlan& plan);

}  // namespace Plexum3::Base
