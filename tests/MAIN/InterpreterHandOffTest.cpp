#include "MAIN/src/InterpreterHandOff.h"

#include <ZkConfiguration/Configuration.h>
#include <ZkPlexum3/ZkPlexum3.h>
#include <gmock/gmock.h>

#include <boost/algorithm/string/replace.hpp>

#include "MAIN/src/EntryScript.h"
#include "tests/ForkedRole.h"
#include "tests/ScratchRoot.h"

using Plexum3::ZkConfiguration::v1::Config;

namespace {

class InterpreterHandOffTest : public testing::Test {
  protected:
    // Runs the statements as the application.
    RoleOutcome run(std::vector<std::string> arguments, std::int32_t verbosity = 1) const {
        return runRole([&] {
            setVariables({{"LC_ALL", "C.UTF-8"}});
            ZkPlexum3InitializeMinimally(0);
            Config().set("TAVREL_ROOT", m_root);
            std::string name = "started as this";
            std::vector<char*> argv{name.data()};
            for (std::string& argument : arguments) {
                argv.push_back(argument.data());
            }
            const int argc = static_cast<int>(argv.size());
            argv.push_back(nullptr);
            return runApplication(argc, argv.data(), m_root, verbosity,
                                  {entryScript, entryScriptLength, "2024-03-01T12:34:56"});
        });
    }

    const ScratchRoot m_scratch{"root"};
    const std::string m_root = m_scratch.path("root");
};

}  // namespace

TEST_F(InterpreterHandOffTest, EveryEndOfTheApplicationHasItsStatus) {
    const std::string nothing;
    const struct {
        const char* statements;
        int status;
        std::string errors;  // the last of what is written to standard error
    } cases[] = {
        {"pass", 0, nothing},
        {"sys.exit()", 0, nothing},
        {"sys.exit(None)", 0, nothing},
        {"sys.exit(0)", 0, nothing},
        {"sys.exit(False)", 0, nothing},
        {"sys.exit(True)", 1, nothing},
        {"sys.exit(3)", 3, nothing},
        {"sys.exit(255)", 255, nothing},
        {"sys.exit(256)", 255, nothing},
        {"sys.exit(512)", 255, nothing},
        {"sys.exit(257)", 1, nothing},
        {"sys.exit(-1)", 255, nothing},
        {"sys.exit(-256)", 255, nothing},
        {"sys.exit(1 << 32)", 255, nothing},
        {"sys.exit(1 << 64)", 255, "OverflowError: Python int too large to convert to C long\n"},
        {"sys.exit('too bad')", 1, "too bad\n"},
        {"sys.exit('')", 1, "\n"},
        {"sys.exit([1, 'x'])", 1, "[1, 'x']\n"},
        {"sys.exit(0.0)", 1, "0.0\n"},
        {"raise SystemExit", 0, nothing},
        {"raise SystemExit(4)", 4, nothing},
        {"raise SystemExit('words')", 1, "words\n"},
        {"raise type('Mine', (SystemExit,), {})(5)", 5, nothing},
        {"raise type('Mine', (SystemExit,), {'code': 6})(5)", 6, nothing},
        {"raise type('Mine', (SystemExit,), {'code': property(lambda self: self.gone)})()", 0,
         "AttributeError: 'Mine' object has no attribute 'gone'\n"},
        {"sys.exit(type('Mute', (), {'__str__': lambda self: 1 // 0})())", 1,
         "ZeroDivisionError: integer division or modulo by zero\n"},
        {"raise ValueError('wrong')", 255, "ValueError: wrong\n"},
        {"raise KeyboardInterrupt", 255, "KeyboardInterrupt\n"},
        {"sys.excepthook = lambda *a: print('hook', file=sys.stderr)\n1 // 0", 255, "hook\n"},
        {"import atexit; atexit.register(print, 'finalised', file=sys.stderr)\nsys.exit(9)", 9,
         "finalised\n"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.statements);
        const RoleOutcome outcome = run({row.statements});
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_THAT(outcome.errors, testing::EndsWith(row.errors));
        EXPECT_EQ(outcome.errors.empty(), row.errors.empty());
    }
}

TEST_F(InterpreterHandOffTest, ApplicationSeesTheCommandLineAndTheLauncher) {
    const std::string tell = R"(print([ascii(argument) for argument in sys.argv[2:]], sys.argv[0],
        __name__, sys.tavrel_BUILD_TIME, sys.tavrel_verbosityLevel,
        'vendorid' in sys.builtin_module_names, sep='|', flush=True))";
    for (const char* verbosity : {"0", "-1", "2147483647"}) {
        const RoleOutcome outcome =
            run({tell, "--batch", "-V", "a b", "\xff\xc3\xa9"}, std::stoi(verbosity));
        EXPECT_EQ(
            boost::algorithm::replace_all_copy(outcome.output, m_root, "ROOT"),
            R"(["'--batch'", "'-V'", "'a b'", "'\\udcff\\xe9'"]|ROOT/bin/python/Main/Main.pyc)"
            "|__main__|2024-03-01T12:34:56|" +
                std::string(verbosity) + "|True\n");
    }
}

TEST_F(InterpreterHandOffTest, VerboseRunFramesTheApplication) {
    const RoleOutcome outcome = run({"print('inside', file=sys.stderr)\n1 // 0"}, /*verbosity=*/2);
    EXPECT_THAT(outcome.errors,
                testing::MatchesRegex(".*Executing Tavrel Python application[.]{3} .*inside\n"
                                      ".*Tavrel Python application exited[.] .*\n"
                                      "Traceback.*ZeroDivisionError.*\n"));
}
