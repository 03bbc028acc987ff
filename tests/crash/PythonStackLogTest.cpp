#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "crash/src/pythonStackLog.h"

/// The interpreter keeps memory for the whole process on purpose.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's own name
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

namespace {

using namespace Zendrik::Breakpad;
namespace fs = std::filesystem;

class PythonStackLog : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        Py_SetPythonHome(Py_DecodeLocale(TEST_PYTHON_HOME, nullptr));
        Py_NoSiteFlag = 1;
        Py_Initialize();
    }

    void SetUp() override {
        std::string folder = testing::TempDir() + "stack.XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        fs::current_path(folder);
    }
    void TearDown() override { fs::remove_all(fs::current_path()); }

    static std::string written() {
        std::ifstream file(pythonStackLogFile);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// Runs @p source under the hook and returns what the last call left in the file.
    static std::string lastStackOf(const char* source) {
        EXPECT_TRUE(startPythonStackLog());
        EXPECT_EQ(PyRun_SimpleString(source), 0);
        PyEval_SetProfile(nullptr, nullptr);
        return written();
    }
};

TEST_F(PythonStackLog, HookWritesOnlyForCallsAndPlainStrings) {
    const std::string path = "'PythonStackLog.txt'";
    const struct {
        std::string object;
        int what;
        const char* written;
    } cases[] = {
        {path, PyTrace_CALL, "Python function call\n"},
        {path, PyTrace_RETURN, "untouched"},
        {"b" + path, PyTrace_CALL, "untouched"},
        {"type('Text', (str,), {})(" + path + ")", PyTrace_CALL, "untouched"},
        {"'\\udc80'", PyTrace_CALL, "untouched"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.object + " " + std::to_string(each.what));
        std::ofstream(pythonStackLogFile) << "untouched";
        PyObject* names = PyModule_GetDict(PyImport_AddModule("__main__"));
        PyObject* object = PyRun_String(each.object.c_str(), Py_eval_input, names, names);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(pythonStackProfileHook(object, nullptr, each.what, nullptr), 0);
        EXPECT_EQ(PyErr_Occurred(), nullptr);
        EXPECT_EQ(written(), each.written);
        Py_DECREF(object);
    }
}

TEST_F(PythonStackLog, LastCallStandsOverItsCallers) {
    const std::string text = lastStackOf(
        "def inner():\n  len('')\n"
        "def outer():\n  inner()\n"
        "outer()\n");
    const std::regex expected(
        "C function call\n"
        "(-?\\d+) 1 1 inner <string> \n"
        " \\1 3 3 outer <string> \n"
        "  \\1 1 1 <module> <string> \n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
    constexpr auto ownerAlone = fs::perms::owner_read | fs::perms::owner_write;
    EXPECT_EQ(fs::status(pythonStackLogFile).permissions(), ownerAlone);
}

TEST_F(PythonStackLog, KeepsTheModeOfAFileThatALinkLeadsTo) {
    std::ofstream("target").close();
    fs::permissions("target", fs::perms::all);
    fs::create_symlink("target", pythonStackLogFile);
    EXPECT_NE(lastStackOf("len('')"), "");
    EXPECT_EQ(fs::status("target").permissions(), fs::perms::all);
}

}  // namespace
