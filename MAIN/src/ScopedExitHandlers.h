#pragma once

#include <boost/thread/mutex.hpp>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

/// Runs what was registered with it, the last first, when the scope that holds it ends:
///
///     ScopedExitHandlers exitHandlers;
///     if (start() != 0) return 1;
///     exitHandlers.add(stop, nullptr);  // from here on every return runs stop(nullptr)
///
/// A program has at most one at a time. Operations may be called from any thread; handlers run
/// without the lock, in the thread that calls runAll, and may register or remove others.
class ScopedExitHandlers {
  public:
    using Handler = void (*)(void* argument);
    using SlotId = std::uint32_t;

    /// @throw boost::thread_resource_error if the mutex can't be initialised
    ScopedExitHandlers();

    /// Runs all handlers; an exception that leaves one of them ends the process.
    // NOLINTNEXTLINE(bugprone-exception-escape)
    ~ScopedExitHandlers();

    ScopedExitHandlers(const ScopedExitHandlers&) = delete;
    ScopedExitHandlers& operator=(const ScopedExitHandlers&) = delete;

    /// @return the live object, null if there is none
    static ScopedExitHandlers* instance();

    /// @param handler not null; called at most once, with `argument`, which stays the caller's
    /// @return the slot that holds the registration until the handler has run or was removed
    /// @throw std::bad_alloc, with nothing registered
    SlotId add(Handler handler, void* argument);

    /// Takes a registration back. A slot that is empty already (its handler ran) is left alone.
    void remove(SlotId slot);

    /// Runs every registered handler, the last registered first, and leaves none registered. An
    /// exception of a handler passes through; those after it have then been dropped.
    void runAll();

  private:
    struct Entry {
        std::uint64_t sequence = std::numeric_limits<std::uint64_t>::max();
        Handler handler = nullptr;
        void* argument = nullptr;

        bool isEmpty() const;
        static bool runsBefore(const Entry& left, const Entry& right);
    };

    std::vector<Entry> entries_;
    std::vector<SlotId> freeSlots_;  ///< a stack
    std::uint64_t nextSequence_ = 0;
    boost::mutex mutex_;  ///< guards all of the above
};
