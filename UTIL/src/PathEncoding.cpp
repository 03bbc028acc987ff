#include <boost/filesystem/detail/utf8_codecvt_facet.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/thread/once.hpp>

#include <cstdlib>
#include <locale>
#include <stdexcept>
#include <string>

#include "UTIL/src/TavrelBootstrap.h"

namespace UTIL {

namespace {

void installUtf8PathLocale() {
    namespace fs = boost::filesystem;
    const std::locale current;
    const std::locale utf8(current, new fs::detail::utf8_codecvt_facet(/*no_locale_manage=*/0));
    try {
        fs::path::imbue(utf8);
    } catch (const std::runtime_error&) {
        // Boost builds its first path locale from the environment and throws if this machine
        // doesn't have it, although the result is thrown away. Such a user is served all the same.
        constexpr char variable[] = "LC_ALL";
        const char* const value = std::getenv(variable);
        const std::string usersValue = value == nullptr ? "" : value;
        static_cast<void>(setenv(variable, "C", /*overwrite=*/1));
        fs::path::imbue(utf8);
        static_cast<void>(value == nullptr ? unsetenv(variable)
                                           : setenv(variable, usersValue.c_str(), /*overwrite=*/1));
    }
}

}  // namespace

void InitPathEncoding() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, installUtf8PathLocale);
}

}  // namespace UTIL
