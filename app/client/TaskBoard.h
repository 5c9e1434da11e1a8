#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace skein {

/// The daemon's list of tasks, kept up to date by the messages of its event stream. Plain logic.
class TaskBoard {
public:
    /// Takes a message in. Whether a task came, changed or went. Throws std::exception when it is none.
    bool take(const boost::json::object& message);

    const boost::json::array& tasks() const noexcept { return tasks_; }
    std::optional<std::size_t> rowOf(const std::string& infoHash) const;

private:
    void index();

    boost::json::array tasks_;
    std::map<std::string, std::size_t> rows_;
};

}  // namespace skein
