#include <gmock/gmock.h>

#include <stdexcept>

#include "MAIN/src/ScopedExitHandlers.h"

using testing::ElementsAre;

namespace {

std::vector<int> calls;
int one = 1, two = 2, three = 3;

void record(void* argument) {
    calls.push_back(argument ? *static_cast<int*>(argument) : 0);
}
void fail(void*) {
    throw std::runtime_error("handler failed");
}

}  // namespace

TEST(ScopedExitHandlers, RunsTheLastFirstOnDestructionWhateverItsSlot) {
    calls.clear();
    {
        ScopedExitHandlers handlers;
        EXPECT_EQ(handlers.add(record, &one), 0U);
        EXPECT_EQ(handlers.add(record, &two), 1U);
        EXPECT_EQ(handlers.add(record, &two), 2U);
        handlers.remove(0);
        handlers.remove(1);
        handlers.remove(1);  // empty already: must not be offered twice
        handlers.remove(17);
        EXPECT_EQ(handlers.add(record, &three), 1U);
        EXPECT_EQ(handlers.add(record, &one), 0U);
        EXPECT_EQ(handlers.add(record, nullptr), 3U);
        handlers.runAll();
        EXPECT_THAT(calls, ElementsAre(0, 1, 3, 2));
        EXPECT_EQ(handlers.add(record, &three), 3U);
    }
    EXPECT_THAT(calls, ElementsAre(0, 1, 3, 2, 3));
    EXPECT_EQ(ScopedExitHandlers::instance(), nullptr);
}

TEST(ScopedExitHandlers, ExceptionPassesRunAllAndEndsTheProcessFromTheDestructor) {
    ScopedExitHandlers handlers;
    handlers.add(fail, nullptr);
    EXPECT_THROW(handlers.runAll(), std::runtime_error);
    EXPECT_DEATH(ScopedExitHandlers().add(fail, nullptr), "handler failed");
}
