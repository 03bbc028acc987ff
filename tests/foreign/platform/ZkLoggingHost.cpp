#include <ZkLoggingHost/ZkLoggerGlue.h>

#include <cstdio>

namespace ZkLoggingHost {

bool ZkLoggerGlue::debugEnabled() const {
    return false;
}
bool ZkLoggerGlue::infoEnabled() const {
    return false;
}
bool ZkLoggerGlue::errorEnabled() const {
    return true;
}
void ZkLoggerGlue::debug(const char*, const char*, int) const {}
void ZkLoggerGlue::info(const char*, const char*, int) const {}
void ZkLoggerGlue::error(const char* message, const char*, int) const {
    std::fprintf(stderr, "foreign: %s: %s\n", name_, message);
}

}  // namespace ZkLoggingHost
