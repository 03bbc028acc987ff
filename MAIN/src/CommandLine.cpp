#include "MAIN/src/CommandLine.h"

#include <boost/program_options/errors.hpp>
#include <boost/program_options/parsers.hpp>
#include <boost/program_options/value_semantic.hpp>

#include <iostream>

namespace po = boost::program_options;

std::pair<std::string, std::string> parseExtraOption(const std::string& argument) {
    constexpr std::size_t prefixLength = 2;
    if (argument.size() <= prefixLength || argument.compare(0, prefixLength, "--") != 0) {
        return {};
    }
    const std::size_t equals = argument.find('=', prefixLength);
    if (equals == std::string::npos) {
        return {argument.substr(prefixLength), std::string()};
    }
    return {argument.substr(prefixLength, equals - prefixLength), argument.substr(equals + 1)};
}

namespace Launcher {

po::options_description describeLauncherOptions(LauncherValues& values) {
    po::options_description launcherOptions;
    auto add = launcherOptions.add_options();
    add("help", "");
    add("batch", "");
    add("shell", "");
    add("script", po::value<std::string>()->implicit_value(""), "");
    add("verbose,V", po::value<std::int32_t>(&values.verbosity), "");
    add("profile", po::bool_switch(&values.profile));
    add("force-profile", po::bool_switch(&values.forceProfile));
    add("profiling-dir", po::value<std::string>(&values.profilingDir));
    return launcherOptions;
}

std::optional<po::variables_map> parseCommandLine(int argc, const char* const* argv,
                                                  const po::options_description& launcherOptions) {
    try {
        po::command_line_parser parser(argc, argv);
        parser.options(launcherOptions).allow_unregistered().extra_parser(parseExtraOption);
        po::variables_map options;
        po::store(parser.run(), options, /*utf8=*/false);
        po::notify(options);
        return options;
    } catch (const po::error& error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return std::nullopt;
    }
}

bool isUiMode(const po::variables_map& options) {
    return options.count("batch") == 0 && options.count("shell") == 0 &&
           options.count("script") == 0;
}

const char* launchLineEnding(const po::variables_map& options) {
    if (options.count("batch") != 0) {
        return " batch...";
    }
    if (options.count("script") != 0) {
        return " script...";
    }
    return options.count("shell") != 0 ? " shell..." : " UI...";
}

}  // namespace Launcher
