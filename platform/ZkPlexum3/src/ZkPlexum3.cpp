#include "ZkPlexum3/ZkPlexum3.h"

#include <atomic>

#include "platform/ZkConfiguration/src/StoreLifeCycle.h"

namespace {

enum class State { untouched, minimal, full, down };
enum Result { ok = 0, badArgument = 1, wrongOrder = 2 };

// Atomic, so that a caller on a second thread gets a refusal and not a race.
std::atomic<State> state{State::untouched};

bool advance(State from, State to) {
    return state.compare_exchange_strong(from, to);
}

}  // namespace

int ZkPlexum3InitializeMinimally(int reserved) {
    if (reserved != 0) {
        return badArgument;
    }
    if (!advance(State::untouched, State::minimal)) {
        return wrongOrder;
    }
    Plexum3::ZkConfiguration::internal::takeEnvironment();
    return ok;
}

int ZkPlexum3Initialize(int reserved) {
    if (reserved != 0) {
        return badArgument;
    }
    return advance(State::minimal, State::full) ? ok : wrongOrder;
}

void ZkPlexum3Uninitialize(void* /*reserved*/) {
    if (advance(State::full, State::down) || advance(State::minimal, State::down)) {
        Plexum3::ZkConfiguration::internal::clear();
    }
}
