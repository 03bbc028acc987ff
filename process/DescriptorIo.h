#pragma once

/// Making descriptors, and the calls on them that restart after EINTR.
///
/// A typical use, here with a child that writes into `writeEnd`:
///
///     ScopedFd readEnd;
///     ScopedFd writeEnd;
///     createPipe(readEnd, writeEnd);           // both ends close-on-exec; throws on failure
///     ...
///     boost::system::error_code error;
///     const ssize_t got = readRetry(readEnd.get(), buffer, sizeof buffer, &error);
///
/// Failures come back in one of two ways:
/// - Set-up operations (createPipe, createSocketPair, setNonBlocking, setInheritable) throw
///   boost::system::system_error: errno, system category, empty what-argument.
/// - Transfer operations and pollAny return -1. They clear *errorCode on entry and store errno in
///   the system category on failure; `errorCode` may be null.
///
/// Nothing here keeps state: every function may be called in any thread.
///
/// createSocketPair, setInheritable, isSocket, recvRetry and sendRetry are for native code of the
/// application, which links tavrel_process for them. Nothing of the launcher calls them.

#include <boost/system/error_code.hpp>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

#include "process/ScopedFd.h"

namespace Plexum3::Base {

/// A pipe whose ends are close-on-exec from the start: no thread that forks and executes meanwhile
/// takes one along. On failure the two holders are unchanged.
void createPipe(ScopedFd& readEnd, ScopedFd& writeEnd);

/// A connected pair of AF_UNIX stream sockets. Unlike createPipe's, they are not close-on-exec.
void createSocketPair(ScopedFd& first, ScopedFd& second);

/// Adds or removes O_NONBLOCK. The flag belongs to the open file: every descriptor that shares it
/// by dup or fork sees the change.
void setNonBlocking(int fd, bool enable);

/// Inheritable means that the descriptor survives exec. Belongs to this descriptor alone.
void setInheritable(int fd, bool inheritable);

/// False, too, for a descriptor that can't be asked (fstat fails).
bool isSocket(int fd);

/// One read(2), write(2), recv(2) or send(2), repeated only while it fails with EINTR. None of them
/// completes a transfer: a short count comes back as it is, and so does the 0 of an end of file.
/// EAGAIN is a failure like any other. writeRetry on a pipe without readers, and sendRetry without
/// MSG_NOSIGNAL, raise SIGPIPE.
ssize_t readRetry(int fd, void* buffer, std::size_t length, boost::system::error_code* errorCode);
ssize_t writeRetry(int fd, const void* buffer, std::size_t length,
                   boost::system::error_code* errorCode);
ssize_t recvRetry(int fd, void* buffer, std::size_t length, int flags,
                  boost::system::error_code* errorCode);
ssize_t sendRetry(int fd, const void* buffer, std::size_t length, int flags,
                  boost::system::error_code* errorCode);

/// Writes all of `bytes`. False with errno, in the system category, in *errorCode, which may be
/// null; EIO if a write takes nothing.
bool writeAll(int fd, std::string_view bytes, boost::system::error_code* errorCode = nullptr);

/// Waits until one of the `count` descriptors at `fds` is readable, at its end, in error or not
/// open at all, and returns it. Which one, when several are, is drawn by lot with rand(), so that
/// none starves; the caller seeds it.
///
/// `timeoutMs`: 0 looks once, a negative value waits for ever. Signals do not lengthen the wait.
///
/// Returns -1 with
/// - ETIMEDOUT in the generic category when the time is over,
/// - errno in the system category when poll(2) fails,
/// - no error when poll reported nothing but conditions that were not asked for.
/// @throw std::length_error for a negative `count`
/// @throw std::bad_alloc
int pollAny(const int* fds, int count, int timeoutMs, boost::system::error_code* errorCode);

}  // namespace Plexum3::Base
