#pragma once

#include <dirent.h>
#include <sys/types.h>
#include <cstddef>
#include <memory>
#include <string>

#include "programs/tavrelCleanup/FileDescriptor.h"

namespace Cleanup {

/// Deletes a folder with all that is in it, and nothing else, whatever other processes do to the
/// tree meanwhile.
///
/// A folder is entered only by its name in a folder that is held open, without following links, and
/// left only by closing it: there is no way back over "..", which would lead out of a folder that
/// somebody has moved. A walk holds at most `kMaxLevels` folders open. What lies deeper, or what
/// there is no free descriptor for, is moved up into the top folder and met there later. So neither
/// the depth nor the width of a tree costs descriptors, stack or heap; the heap holds one buffer of
/// entries a level, of which only those that a tree reaches are ever touched.
///
/// A walk that leaves something is repeated as long as that helps, with pauses, so that writers
/// that outlive the application by a moment do not win; after `kMaxPasses` walks the rest stays.
///
/// Mount points stay, and so does what the user has no right to delete. Modes that are in the way
/// are changed to 0700. For one thread; uses no global state.
class TreeRemoval {
  public:
    static constexpr int kMaxLevels = 32;
    static constexpr int kMaxPasses = 10;

    /// `top` is the folder, open for reading; `parentFd` and `name` tell where it stands, and have
    /// to outlive this object.
    TreeRemoval(int parentFd, const char* name, FileDescriptor top);

    /// True when nothing is left, the folder itself included. Otherwise the fields below tell what
    /// the last walk met.
    bool run();

    /// Number of entries that could not be deleted, without the folders that only hold such ones.
    std::size_t obstacleCount() const { return obstacleCount_; }
    /// The first of them, relative to the top folder (empty for that folder itself), and its errno;
    /// EXDEV for a mount point.
    const std::string& firstObstacle() const { return firstObstacle_; }
    int firstError() const { return firstError_; }

  private:
    static constexpr std::size_t kEntriesBytes = 32768;

    struct Level {
        FileDescriptor fd;
        bool isAccessGranted;         // its mode has been changed already
        std::size_t obstaclesBefore;  // the count on the way in
        std::size_t length;           // bytes read into `entries`
        std::size_t next;             // where the entry after `entry` begins
        const dirent64* entry;        // the current one
        // Left uninitialised like the rest: a level that is never reached takes no memory.
        alignas(dirent64) char entries[kEntriesBytes];
    };

    void walk();
    bool removeTop();
    bool nextEntry();
    void removeEntry();
    int removeName(int flags);
    int enter();
    FileDescriptor openDespiteMode();
    bool grantAccess(Level& level);
    void push(FileDescriptor folder);
    void leave();
    int hoist();
    int renameIntoTop(const char* newName);
    void addObstacle(int depth, int error);

    Level& current() { return levels_[depth_]; }

    const int parentFd_;
    const char* const name_;
    dev_t device_ = 0;
    std::unique_ptr<Level[]> levels_;
    int depth_ = 0;
    unsigned hoistNumber_ = 0;

    // What one walk did.
    std::size_t removedCount_ = 0;
    std::size_t hoistedCount_ = 0;
    std::size_t obstacleCount_ = 0;
    bool isLasting_ = false;  // an obstacle that the next walk will meet again
    std::string firstObstacle_;
    int firstError_ = 0;
};

}  // namespace Cleanup
