#include "MAIN/src/ScopedExitHandlers.h"

#include <algorithm>
#include <boost/thread/lock_guard.hpp>
#include <functional>

namespace {

ScopedExitHandlers* liveHandlers = nullptr;

}  // namespace

bool ScopedExitHandlers::Entry::isEmpty() const {
    return sequence == Entry().sequence && handler == nullptr && argument == nullptr;
}

bool ScopedExitHandlers::Entry::runsBefore(const Entry& left, const Entry& right) {
    if (left.sequence != right.sequence) {
        return left.sequence > right.sequence;
    }
    if (left.handler != right.handler) {
        return std::greater<>()(left.handler, right.handler);
    }
    return std::greater<>()(left.argument, right.argument);
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
    const boost::lock_guard<boost::mutex> lock(m_mutex);
    const auto takeFreeSlot = [this] {
        while (!m_freeSlots.empty()) {
            const SlotId slot = m_freeSlots.back();
            m_freeSlots.pop_back();
            if (m_entries[slot].isEmpty()) {
                return slot;
            }
        }
        m_entries.emplace_back();
        return static_cast<SlotId>(m_entries.size() - 1);
    };
    const SlotId slot = takeFreeSlot();
    m_entries[slot] = Entry{m_nextSequence++, handler, argument};
    return slot;
}

void ScopedExitHandlers::remove(SlotId slot) {
    const boost::lock_guard<boost::mutex> lock(m_mutex);
    if (slot >= m_entries.size() || m_entries[slot].isEmpty()) {
        return;
    }
    m_freeSlots.push_back(slot);
    m_entries[slot] = Entry();
}

void ScopedExitHandlers::runAll() {
    std::vector<Entry> entries;
    {
        const boost::lock_guard<boost::mutex> lock(m_mutex);
        entries.assign(m_entries.size(), Entry());
        entries.swap(m_entries);
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
    const boost::lock_guard<boost::mutex> lock(m_mutex);
    m_freeSlots.insert(m_freeSlots.end(), vacated.begin(), vacated.end());
}
