#pragma once

#include <string>

namespace Plexum3::ZkConfiguration::v1 {

/// The process-wide store of string keys and values that all parts of the application share.
/// ZkPlexum3InitializeMinimally fills it from the process environment; it never writes back to the
/// environment. Every operation may be called from any thread and throws only what allocation
/// throws.
class Configuration {
  public:
    /// True if the key has a value; false for a key that isn't set or that holds the empty string.
    bool has(const std::string& key) const;

    /// The value, or the empty string for a key that isn't set.
    std::string get(const std::string& key) const;

    /// Sets or replaces the value; the empty string clears the key.
    void set(const std::string& key, const std::string& value);
};

/// The one store of this process. Asked for anew at each access; callers keep no reference.
Configuration& Config();

}  // namespace Plexum3::ZkConfiguration::v1
