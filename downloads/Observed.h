#pragma once

#include "downloads/TaskChanges.h"

#include <utility>

namespace skein {

/// A value of a task that tells when it changes; setting it to what it is tells nothing. Thread: the main executor.
template <TaskField field, class Value>
class Observed {
public:
    explicit Observed(TaskChanges& changes, Value value = Value()) : changes_(changes), value_(std::move(value)) {}
    Observed(const Observed&) = delete;
    Observed& operator=(const Observed&) = delete;

    const Value& operator()() const noexcept { return value_; }

    void set(Value value) {
        if (value == value_) return;
        value_ = std::move(value);
        changes_.note(field);
    }

private:
    TaskChanges& changes_;
    Value value_;
};

}  // namespace skein
