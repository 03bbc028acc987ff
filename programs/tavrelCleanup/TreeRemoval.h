#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

#include "programs/tavrelCleanup/FolderAccess.h"

namespace Cleanup {

/// When to try again, and after what pause. Writers outlive the application by a moment, and a file
/// server says that a file is busy as long as it is still open somewhere: a second try a little
/// later deletes what the first one had to leave.

/// Tries that leave something before the rest stays for good.
constexpr int maxPasses = 10;

/// Whether an errno means something that passes: what others do to the tree at the same time, a
/// file that is still open somewhere, a shortage.
bool isPassing(int error);

/// None before the first pass and the first repetition, then 10 ms, doubled up to a second: 2.3 s
/// before the last of `maxPasses`.
void pauseBeforePass(int pass);

/// Deletes a folder with all that is in it, and nothing else, whatever other processes do to the
/// tree meanwhile.
///
/// A folder is entered only by its name in a folder that is held open, without following links, and
/// left only by closing it: there is no way back over "..", which would lead out of a folder that
/// that was moved. A walk holds at most `maxLevels` folders open. What lies deeper, or what
/// there is no free descriptor for, is moved up into the top folder and met there later:
///
///     levels_[0]   top ──┬── a file            removeName
///                        ├── .tavrelCleanup.1 ◄──────────────┐   met again later
///                        └── a                 enter         │
///     levels_[1]             ├── a link        removeName    │
///                            └── b             enter         │
///         ...                    └── ...                     │
///     levels_[31]                    └── deeper ─── hoist ───┘   nothing is open below
///                     leave: close the folder, removeName on its entry one level up
///
/// So neither the depth nor the width of a tree costs descriptors, stack or heap; the heap holds
/// one buffer of entries a level, of which only those that a tree reaches are ever touched.
///
/// A walk that leaves something is repeated as long as that helps, with pauses, so that writers
/// that outlive the application by a moment do not win; after `maxPasses` walks the rest stays. A
/// walk ends early after `walkBudget` entries and is followed by another one after a pause. That
/// and walks that have moved folders up count as passes only once `totalBudget` entries have gone
/// by: what grows faster than it is deleted doesn't keep the program for ever.
///
/// Mount points stay, and so does what the user has no right to delete. Modes that are in the way
/// are changed to 0700. For one thread; uses no global state but `errno`.
class TreeRemoval {
  public:
    static constexpr int maxLevels = 32;
    static constexpr std::size_t walkBudget = std::size_t{1} << 20;
    static constexpr std::size_t totalBudget = 32 * walkBudget;

    /// `top` is the folder, open for reading, on `mount`; `parentFd` and `name` say where it
    /// stands, and have to outlive this object.
    /// @throw std::bad_alloc
    TreeRemoval(int parentFd, const char* name, Plexum3::Base::ScopedFd top, const Mount& mount);

    /// True when nothing is left, the folder itself included. Otherwise the fields below say what
    /// the last walk met.
    bool run();

    /// Number of entries that could not be deleted, without the folders that only hold such ones.
    std::size_t obstacleCount() const { return obstacleCount_; }
    /// The first of them, relative to the top folder (empty for that folder itself), and its errno;
    /// EXDEV for a mount point, EOPNOTSUPP for what may be one.
    const std::string& firstObstacle() const { return firstObstacle_; }
    int firstError() const { return firstError_; }

  private:
    static constexpr std::size_t entriesBytes = 32768;

    struct Level {
        Plexum3::Base::ScopedFd fd;
        bool isAccessGranted;         ///< its mode has been changed already
        std::size_t obstaclesBefore;  ///< the count on the way in
        std::size_t length;           ///< bytes read into `entries`
        std::size_t next;             ///< where the entry after `entry` begins
        const dirent64* entry;        ///< the current one
        /// Left uninitialised like the rest: a level that is never reached takes no memory.
        alignas(dirent64) char entries[entriesBytes];
    };

    /// What became of an entry. Stays leaves its reason in `errno`.
    enum class Fate {
        Gone,     ///< deleted, here or by another process
        Entered,  ///< a folder, and the current level now
        Hoisted,  ///< a folder, and in the top folder now
        Stays,
    };

    void walk();
    bool removeTop();
    bool nextEntry();
    void removeEntry();
    Fate removeName(int flags);
    Fate removeFolder();
    Fate enter();
    Plexum3::Base::ScopedFd openDespiteMode();
    bool grantAccess(Level& level);
    void push(Plexum3::Base::ScopedFd folder);
    void leave();
    Fate hoist();
    bool renameIntoTop(const char* newName);
    void addObstacle(int depth, int error);

    Level& current() { return levels_[depth_]; }

    const int parentFd_;
    const char* const name_;
    const Mount mount_;
    std::unique_ptr<Level[]> levels_;
    int depth_ = 0;
    unsigned hoistNumber_ = 0;

    /// What one walk did.
    std::size_t removedCount_ = 0;
    std::size_t hoistedCount_ = 0;
    std::size_t obstacleCount_ = 0;
    std::size_t passingCount_ = 0;  ///< of the obstacles, those that a later walk may not meet
    std::size_t seenCount_ = 0;     ///< entries of all kinds
    std::string firstObstacle_;
    int firstError_ = 0;
};

}  // namespace Cleanup
