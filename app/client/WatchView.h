#pragma once

#include "app/client/KeyReader.h"
#include "app/client/TaskBoard.h"

#include <boost/json/object.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// What a key has the daemon do, or us.
struct WatchAction {
    enum class Kind : std::uint8_t { pause, resume, remove, removeWithFiles, quit };
    Kind kind = Kind::quit;
    std::string infoHash;
};

/// The live table: what it shows, and what its keys mean. Plain logic.
class WatchView {
public:
    /// A message of the event stream. Throws std::exception when it is none.
    void take(const boost::json::object& message);
    std::optional<WatchAction> press(Key key);
    /// Shown instead of the keys, until the next one is pressed.
    void say(std::string notice) { notice_ = std::move(notice); }

    /// A whole screen, for a terminal of that size: every line is written over what was there.
    std::string screen(std::size_t rows, std::size_t columns);

private:
    const boost::json::object* chosen() const;
    void choose(std::size_t row);
    void keepChoice();
    std::optional<WatchAction> act(WatchAction::Kind kind);
    std::string footer() const;
    std::string detail() const;
    void scroll(std::size_t visible);

    TaskBoard board_;
    std::string chosen_;    // the info-hash
    std::size_t row_ = 0;   // where it was last
    std::size_t top_ = 0;   // the first row shown
    std::size_t page_ = 1;  // how many are
    std::string notice_;
    std::optional<WatchAction> question_;  // done when the answer is yes
};

}  // namespace skein
