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

// Boost builds its first path locale from the environment and throws if that names a locale which
// this machine doesn't have, although the result is thrown away. Such a user is served all the
// same. Where setenv has no memory, Boost's exception stands.
class NeutralLocaleSetting {
  public:
    NeutralLocaleSetting() {
        const char* value = std::getenv(variable);
        wasSet_ = value != nullptr;
        value_ = wasSet_ ? value : "";
        static_cast<void>(setenv(variable, "C", /*overwrite=*/1));
    }
    ~NeutralLocaleSetting() {
        if (wasSet_) {
            static_cast<void>(setenv(variable, value_.c_str(), /*overwrite=*/1));
        } else {
            static_cast<void>(unsetenv(variable));
        }
    }
    NeutralLocaleSetting(const NeutralLocaleSetting&) = delete;
    NeutralLocaleSetting& operator=(const NeutralLocaleSetting&) = delete;

  private:
    static constexpr char variable[] = "LC_ALL";
    bool wasSet_;
    std::string value_;
};

void installUtf8PathLocale() {
    namespace fs = boost::filesystem;
    const std::locale current;
    const std::locale utf8(current, new fs::detail::utf8_codecvt_facet(/*no_locale_manage=*/0));
    try {
        fs::path::imbue(utf8);
    } catch (const std::runtime_error&) {
        const NeutralLocaleSetting neutral;
        fs::path::imbue(utf8);
    }
}

}  // namespace

void InitPathEncoding() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, installUtf8PathLocale);
}

}  // namespace UTIL
