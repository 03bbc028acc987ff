#include "MAIN/src/ScopedExitHandlers.h"

#include <boost/thread/lock_guard.hpp>

#include <algorithm>
#include <tuple>

namespace {

ScopedExitHandlers* liveHandlers = nullptr;

}  // namespace

bool ScopedExitHandlers::Entry::isEmpty() const {
    return sequence == Entry().sequence && handler == nullptr && argument == nullptr;
}

bool ScopedExitHandlers::Entry::runsBefore(const Entry& left, const Entry& right) {
    return std::tie(left.sequence, left.handler, left.argument) >
           std::tie(right.sequence, right.handler, right.argument);
}

ScopedExitHandlers::ScopedExitHandlers() {
    liveHandlers = this;
}

// NOLINTNEXTLINE(bugprone-exception-escape): it ends the process, as the header says
ScopedExitHandlers::~ScopedExitHandlers() {
    runAll();
    liveHandlers = nullptr;
}

ScopedExitHandlers* ScopedExitHandlers::instance() {
    return liveHandlers;
}

ScopedExitHandlers::SlotId ScopedExitHandlers::add(Handler handler, void* argument) {
    const boost::lock_guard<boost::mutex> lock(mutex_);
    const auto takeFreeSlot = [this] {
        while (!freeSlots_.empty()) {
            const SlotId slot = freeSlots_.back();
            freeSlots_.pop_back();
            if (entries_[slot].isEmpty()) {
                return slot;
            }
        }
        entries_.emplace_back();
        return static_cast<SlotId>(entries_.size() - 1);
    };
    const SlotId slot = takeFreeSlot();
    entries_[slot] = Entry{nextSequence_++, handler, argument};
    return slot;
}

void ScopedExitHandlers::remove(SlotId slot) {
    const boost::lock_guard<boost::mutex> lock(mutex_);
    if (slot >= entries_.size() || entries_[slot].isEmpty()) {
        return;
    }
    freeSlots_.push_back(slot);
    entries_[slot] = Entry();
}

void ScopedExitHandlers::runAll() {
    std::vector<Entry> entries;
    {
        const boost::lock_guard<boost::mutex> lock(mutex_);
        entries.assign(entries_.size(), Entry());
        entries.swap(entries_);
    }
    std::vector<SlotId> vacated;
    for (std::size_t slot = 0; slot < entries.size(); ++slot) {
        if (!entries[slot].isEmpty()) {
            vacated.push_back(static_cast<SlotId>(slot));
        }
    }
    std::sort(entries.begin(), entries.end(), Entry::runsBefore);
    for (const Entry& entry : entries) {
        if (!entry.isEmpty()) {
            entry.handler(entry.argument);
        }
    }
    const boost::lock_guard<boost::mutex> lock(mutex_);
    freeSlots_.insert(freeSlots_.end(), vacated.begin(), vacated.end());
}
