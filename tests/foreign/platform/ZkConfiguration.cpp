// A configuration of another vendor: the least that the header promises.

#include <ZkConfiguration/Configuration.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace Plexum3::ZkConfiguration::v1 {

namespace {
std::mutex mutex;
std::map<std::string, std::string>& values() {
    static std::map<std::string, std::string> all;
    return all;
}
}  // namespace

bool Configuration::has(const std::string& key) const {
    return !get(key).empty();
}

std::string Configuration::get(const std::string& key) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = values().find(key);
    return found == values().end() ? "" : found->second;
}

void Configuration::set(const std::string& key, const std::string& value) {
    const std::lock_guard<std::mutex> lock(mutex);
    values()[key] = value;
}

Configuration& Config() {
    static Configuration only;
    return only;
}

}  // namespace Plexum3::ZkConfiguration::v1

// For the Python module, which loads this library by ctypes.
extern "C" const char* foreignGet(const char* key) {
    thread_local std::string value;
    value = Plexum3::ZkConfiguration::v1::Config().get(key);
    return value.c_str();
}

extern "C" void foreignSet(const char* key, const char* value) {
    Plexum3::ZkConfiguration::v1::Config().set(key, value);
}
