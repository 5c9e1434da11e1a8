#pragma once

#include "downloads/TaskChanged.h"
#include "public/common/MsgCenter/MsgCenter.h"

#include <utility>

namespace skein {

/// Tells the world what changed in one task. Thread: the main executor.
class TaskChanges {
public:
    TaskChanges(MsgCenter& center, UUID id) noexcept : center_(center), id_(id) {}
    TaskChanges(const TaskChanges&) = delete;
    TaskChanges& operator=(const TaskChanges&) = delete;

    /// While one lives, changes wait; then they are published as one. The task outlives it.
    class Batch {
    public:
        explicit Batch(TaskChanges& changes) noexcept : changes_(changes) { ++changes_.batches_; }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        ~Batch() {
            if (--changes_.batches_ == 0) changes_.publish();
        }

    private:
        TaskChanges& changes_;
    };

    void note(TaskField field) {
        waiting_ |= field;
        if (batches_ == 0) publish();
    }

private:
    void publish() {
        const TaskFields fields = std::exchange(waiting_, TaskFields());
        if (!fields.isEmpty()) center_.publish(TaskChanged{id_, fields});
    }

    MsgCenter& center_;
    const UUID id_;
    TaskFields waiting_;
    int batches_ = 0;
};

}  // namespace skein
