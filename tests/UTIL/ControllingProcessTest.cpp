#include <gmock/gmock.h>
#include <sys/resource.h>

#include "UTIL/src/TavrelBootstrap.h"
#include "tests/ForkedRole.h"

// What can't be brought about from outside. The rest is in tests/system.

namespace {

constexpr char variable[] = "__TAVREL_CONTROLLING_PROCESS";

class ControllingProcessFailure : public testing::Test {
  protected:
    // The address sanitizer's companion opens pipes to see whether an object can be read, and takes
    // a refusal for a broken object.
    void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
        GTEST_SKIP() << "opening can't be forbidden under the address sanitizer";
#endif
    }
};

void forbidOpening() {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
}

}  // namespace

TEST_F(ControllingProcessFailure, UnreadableProcessIsNotWatchedAnyMore) {
    const RoleOutcome outcome = runRole([] {
        forbidOpening();
        UTIL::WatchControllingProcess(17, boost::chrono::microseconds(5678), "NAME", "VALUE");
        return 42;
    });
    EXPECT_EQ(outcome.status, 42);
    EXPECT_EQ(outcome.errors,
              "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the given "
              "PID 17: \"Too many open files\"\n"
              "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of the "
              "internal NAME environment variable: \"VALUE\"\n");
}

TEST_F(ControllingProcessFailure, UnknownOwnCreationTimeLeavesTheInheritedValue) {
    const RoleOutcome outcome = runRole([] {
        setVariables({{variable, "abc"}});
        forbidOpening();
        UTIL::StartControllingProcessWatchdog();
        return getenv(variable) == std::string("abc") ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.errors,
                testing::EndsWith("\n[BOOTSTRAP] WARNING: Failed to get process creation time: "
                                  "\"Too many open files\"\n"));
}
