#pragma once

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/variables_map.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

/// The parser's own road for "--name" and "--name=value", split at the first "=".
/// @return two empty strings for any other argument, which hands it back to the parser
std::pair<std::string, std::string> parseExtraOption(const std::string& argument);

/// The launcher's look at the command line: it reads how to start, consumes nothing, and leaves
/// every argument, its own included, to the application.
namespace Launcher {

/// What the options with a value give, and what holds without them.
struct LauncherValues {
    std::int32_t verbosity = 1;
    bool profile = false;
    bool forceProfile = false;
    std::string profilingDir;
};

/// @param values receives what parseCommandLine reads; must outlive the result
boost::program_options::options_description describeLauncherOptions(LauncherValues& values);

/// Reads the process's arguments. Those that `launcherOptions` doesn't describe are passed over.
/// @return none, after one line on standard error, if an option of the launcher is used wrongly
std::optional<boost::program_options::variables_map> parseCommandLine(
    int argc, const char* const* argv,
    const boost::program_options::options_description& launcherOptions);

/// @return whether the application's window is wanted: no --batch, --shell or --script is given
bool isUiMode(const boost::program_options::variables_map& options);

/// @return how the launch line ends, a blank in front; --batch goes before --script before --shell
const char* launchLineEnding(const boost::program_options::variables_map& options);

}  // namespace Launcher
