#pragma once

/// The two conventions by which this folder turns `errno` into a report. Usable in any thread; not
/// between fork and exec, where nothing may throw.

#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>

namespace Plexum3::Base {

/// @param error  an errno value
/// @throw boost::system::system_error with it, in the system category, with an empty what-argument
[[noreturn]] inline void throwSystemError(int error) {
    throw boost::system::system_error(error, boost::system::system_category());
}

/// For a call that returns -1 and sets errno: hands back any other result, throws for -1.
inline int throwOnFailure(int result) {
    if (result == -1) {
        throwSystemError(errno);
    }
    return result;
}

/// Clears `errorCode`, which may be null, to the success value of the system category.
inline void clearError(boost::system::error_code* errorCode) {
    if (errorCode != nullptr) {
        errorCode->assign(0, boost::system::system_category());
    }
}

/// Stores `error` in `errorCode`, which may be null.
inline void storeError(boost::system::error_code* errorCode, int error,
                       const boost::system::error_category& category) {
    if (errorCode != nullptr) {
        errorCode->assign(error, category);
    }
}

/// Runs a call that returns -1 and sets errno again for as long as a signal interrupts it.
template <class Call>
auto retryOnInterrupt(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

}  // namespace Plexum3::Base
