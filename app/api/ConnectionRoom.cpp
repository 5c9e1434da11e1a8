#include "app/api/ConnectionRoom.h"

#include <utility>

namespace skein {

ConnectionRoom::Place::Place(ConnectionRoom& room, std::function<void()> cut) : room_(room), cut_(std::move(cut)) {
    room_.unproven_.push_back(this);
    if (room_.unproven_.size() <= maxUnproven) return;
    Place& oldest = *room_.unproven_.front();
    room_.unproven_.pop_front();
    oldest.state_ = State::cut;
    oldest.cut_();
}

ConnectionRoom::Place::~Place() {
    if (state_ == State::unproven) room_.unproven_.remove(this);
    if (state_ == State::proven) --room_.proven_;
}

bool ConnectionRoom::Place::prove() {
    if (state_ != State::unproven) return state_ == State::proven;
    if (room_.proven_ >= maxProven) return false;
    room_.unproven_.remove(this);
    ++room_.proven_;
    state_ = State::proven;
    return true;
}

}  // namespace skein
