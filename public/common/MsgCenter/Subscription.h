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
    /// What the centre knows of a subscriber.
    class Link {
    public:
        Link() = default;
        Link(const Link&) = delete;
        Link& operator=(const Link&) = delete;
        virtual ~Link() = default;
        virtual void end() noexcept = 0;
        virtual std::size_t lost() const = 0;
    };

    /// Subscribed to nothing.
    Subscription() = default;
    explicit Subscription(std::shared_ptr<Link> link) noexcept : link_(std::move(link)) {}
    Subscription(Subscription&&) noexcept = default;
    Subscription& operator=(Subscription&& other) noexcept {
        if (this == &other) return *this;
        end();
        link_ = std::move(other.link_);
        return *this;
    }
    ~Subscription() { end(); }

    void end() noexcept {
        if (const auto link = std::move(link_)) link->end();
    }
    /// How many messages were dropped because the handler fell too far behind: who needs every change then looks anew
    /// at what the messages were about.
    std::size_t lost() const { return link_ ? link_->lost() : 0; }

private:
    std::shared_ptr<Link> link_;
};

}  // namespace skein
