#include "MAIN/src/MainLog.h"

#include <type_traits>

const ZkLoggingHost::ZkLoggerGlue& mainLogger() {
    static_assert(std::is_trivially_destructible_v<ZkLoggingHost::ZkLoggerGlue>);
    static const ZkLoggingHost::ZkLoggerGlue logger("MAIN");
    return logger;
}
