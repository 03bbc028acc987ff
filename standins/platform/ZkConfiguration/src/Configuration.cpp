#include "ZkConfiguration/Configuration.h"

#include <unistd.h>

#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>

#include "standins/platform/ZkConfiguration/src/StoreLifeCycle.h"

namespace Plexum3::ZkConfiguration {
namespace {

struct Store {
    std::shared_mutex mutex;
    std::unordered_map<std::string, std::string> values;
};

// Never destroyed: threads of the application may still ask while static objects go away.
Store& store() {
    static Store* const only = new Store;
    return *only;
}

}  // namespace

namespace v1 {

bool Configuration::has(const std::string& key) const {
    Store& s = store();
    const std::shared_lock lock(s.mutex);
    const auto found = s.values.find(key);
    return found != s.values.end() && !found->second.empty();
}

std::string Configuration::get(const std::string& key) const {
    Store& s = store();
    const std::shared_lock lock(s.mutex);
    const auto found = s.values.find(key);
    return found == s.values.end() ? std::string() : found->second;
}

void Configuration::set(const std::string& key, const std::string& value) {
    Store& s = store();
    const std::unique_lock lock(s.mutex);
    s.values[key] = value;
}

Configuration& Config() {
    static Configuration only;
    return only;
}

}  // namespace v1

namespace internal {

void takeEnvironment() {
    Store& s = store();
    const std::unique_lock lock(s.mutex);
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const std::size_t equals = text.find('=');
        if (equals != std::string_view::npos) {
            // As getenv does it, the first of two entries of one name counts.
            s.values.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
    }
}

void clear() {
    Store& s = store();
    const std::unique_lock lock(s.mutex);
    std::unordered_map<std::string, std::string>().swap(s.values);
}

}  // namespace internal
}  // namespace Plexum3::ZkConfiguration
