#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace skein {

/// One subscriber's place in a MsgCenter; the subscription ends when this goes.
///
/// Ended on the strand on which the handler runs, the handler is not called any more; ended elsewhere, a call that runs
/// at that moment still ends. May outlive the centre. Thread: one at a time.
class Subscription {
public:
    /// What is between the two; the subscription ends with it.
    class Link {
    public:
        Link() = default;
        Link(const Link&) = delete;
        Link& operator=(const Link&) = delete;
        virtual ~Link() = default;
        virtual std::size_t lost() const = 0;
    };

    /// Subscribed to nothing.
    Subscription() = default;
    explicit Subscription(std::unique_ptr<Link> link) noexcept : link_(std::move(link)) {}

    void end() noexcept { link_.reset(); }
    /// How many messages were dropped because the handler fell too far behind: who needs every change then looks anew
    /// at what the messages were about.
    std::size_t lost() const { return link_ ? link_->lost() : 0; }

private:
    std::unique_ptr<Link> link_;
};

}  // namespace skein
