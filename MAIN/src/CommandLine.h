#pragma once

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/variables_map.hpp>
#include <cstdint>
#include <string>
#include <utility>

/// The launcher's look at the command line: it reads how to start, consumes nothing, and leaves
/// every argument, its own included, to the application.
///
///     std::int32_t verbosity = 1;
///     ...
///     const auto launcherOptions = describeLauncherOptions(verbosity, profile, ...);
///     boost::program_options::variables_map options;
///     if (!parseCommandLine(argc, argv, launcherOptions, options)) return 1;

/// @param verbosity, profile, forceProfile, profilingDir receive their options' values when
///        parseCommandLine succeeds; must outlive the result. The switches become false without
///        their options; the other two keep what they hold.
boost::program_options::options_description describeLauncherOptions(std::int32_t& verbosity,
                                                                    bool& profile,
                                                                    bool& forceProfile,
                                                                    std::string& profilingDir);

/// Fills `options` and the targets of `launcherOptions` from the process's arguments. Options that
/// aren't described, and arguments that are no options, are passed over.
/// @return false after one line on standard error (argv[0] and the parser's words) if an option of
///         the launcher is used wrongly
bool parseCommandLine(int argc, const char* const* argv,
                      const boost::program_options::options_description& launcherOptions,
                      boost::program_options::variables_map& options);

/// Splits one argument of the form --name or --name=value at the first "=".
/// @return name and value; two empty strings hand the argument back to the parser
std::pair<std::string, std::string> parseExtraOption(const std::string& argument);

/// @return whether the application's window is wanted: no --batch, --shell or --script is given
bool isUiMode(const boost::program_options::variables_map& options);

/// @return how the launch line ends, a blank in front; --batch goes before --script before --shell
const char* launchLineEnding(const boost::program_options::variables_map& options);
