#include "MAIN/src/CommandLine.h"

#include <boost/program_options/errors.hpp>
#include <boost/program_options/parsers.hpp>
#include <boost/program_options/value_semantic.hpp>
#include <iostream>

namespace po = boost::program_options;

po::options_description describeLauncherOptions(std::int32_t& verbosity, bool& profile,
                                                bool& forceProfile, std::string& profilingDir) {
    po::options_description launcherOptions;
    launcherOptions.add_options()("help", "")("batch", "")("shell", "")(
        "script", po::value<std::string>()->implicit_value(""), "")(
        "verbose,V", po::value<std::int32_t>(&verbosity), "")("profile", po::bool_switch(&profile))(
        "force-profile", po::bool_switch(&forceProfile))("profiling-dir",
                                                         po::value<std::string>(&profilingDir));
    return launcherOptions;
}

bool parseCommandLine(int argc, const char* const* argv,
                      const po::options_description& launcherOptions, po::variables_map& options) {
    try {
        po::command_line_parser parser(argc, argv);
        parser.options(launcherOptions).allow_unregistered().extra_parser(parseExtraOption);
        po::store(parser.run(), options, /*utf8=*/false);
        po::notify(options);
    } catch (const po::error& error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return false;
    }
    return true;
}

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
