#include "ZkPlexum3/ZkPlexum3.h"

#include <atomic>

#include "standins/platform/ZkConfiguration/src/StoreLifeCycle.h"

namespace {

enum class State { Untouched, Minimal, Full, Down };
enum Result { Ok = 0, BadArgument = 1, WrongOrder = 2 };

// Atomic, so that a caller on a second thread gets a refusal and not a race.
std::atomic<State> state{State::Untouched};

bool advance(State from, State to) {
    return state.compare_exchange_strong(from, to);
}

}  // namespace

int ZkPlexum3InitializeMinimally(int reserved) {
    if (reserved != 0) {
        return BadArgument;
    }
    if (!advance(State::Untouched, State::Minimal)) {
        return WrongOrder;
    }
    Plexum3::ZkConfiguration::internal::takeEnvironment();
    return Ok;
}

int ZkPlexum3Initialize(int reserved) {
    if (reserved != 0) {
        return BadArgument;
    }
    return advance(State::Minimal, State::Full) ? Ok : WrongOrder;
}

void ZkPlexum3Uninitialize(void* /*reserved*/) {
    if (advance(State::Full, State::Down) || advance(State::Minimal, State::Down)) {
        Plexum3::ZkConfiguration::internal::clear();
    }
}
