#pragma once

#include "Core/discovery/LSDMessage.h"
#include "Core/discovery/LSDSocket.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/LocalBinding.h"
#include "public/common/TaskGroup.h"

#include <map>
#include <string>
#include <string_view>

namespace skein {

/// The socket of local discovery, which all torrents of the process share: each hears the announces of its own
/// info-hash. It is open while there is a torrent.
///
/// Owner: the program, which awaits `stop()`. Thread: its strand, which is that of all its torrents' services.
class LSDPort {
public:
    class Listener {
    public:
        Listener() = default;
        Listener(const Listener&) = delete;
        Listener& operator=(const Listener&) = delete;
        virtual void onAnnounce(const LSDMessage& message, const std::string& fromHost) = 0;

    protected:
        ~Listener() = default;
    };

    /// `clock` and `log` outlive it.
    LSDPort(const asio::any_io_executor& pool, Clock& clock, FileLogger& log, const LocalBinding& binding = {});

    const Strand& strand() const noexcept { return tasks_.strand(); }
    /// False when there is no socket. `loopsBack`: announces also come back to this machine, from then on.
    bool add(const std::string& infoHashHex, Listener& listener, bool loopsBack);
    void remove(const std::string& infoHashHex, const Listener& listener);
    /// As LSDSocket.
    void announce(std::string_view datagram, std::string_view what) { socket_.announce(datagram, what); }
    /// Returns when nothing of the port runs any more. The listeners have left.
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    asio::awaitable<void> receive(unsigned run);
    void hand(std::string_view datagram, const std::string& fromHost);

    Clock& clock_;
    FileLogger& log_;
    std::multimap<std::string, Listener*> listeners_;
    unsigned run_ = 0;  // counts the openings: a receiver of an earlier one ends
    TaskGroup tasks_;
    LSDSocket socket_;
};

}  // namespace skein
