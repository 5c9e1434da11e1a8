#pragma once

#include "downloads/SavedTask.h"
#include "public/common/SHA1.h"

#include <filesystem>
#include <vector>

namespace skein {

/// The tasks whose removal has begun and not yet ended, put down under the home: a removal is done to its end also when
/// the process is killed in the midst of it.
///
/// One file each, the task as the saved list had it. Stateless but for the folder; all calls block: disk pool only.
class PendingRemovals {
public:
    struct Removal {
        SavedTask task;
        bool deletesFiles = false;
    };

    explicit PendingRemovals(const std::filesystem::path& home);

    /// On the device when this returns. `key` is the task's, as TaskTargets has it. Throws std::system_error.
    void begin(const SHA1Digest& key, const Removal& removal) const;
    void end(const SHA1Digest& key) const noexcept;
    /// Those that an earlier run has left. What is damaged is passed over.
    std::vector<Removal> all() const;

private:
    std::filesystem::path recordOf(const SHA1Digest& key) const;

    const std::filesystem::path folder_;
};

}  // namespace skein
