#pragma once

#include <boost/asio/awaitable.hpp>

#include <string>

namespace skein {

namespace asio = boost::asio;

/// Who signs in to the chat. `pass` is a secret: it goes into the login frame and nowhere else, least of all the log.
struct ChatAccount {
    std::string user;    ///< empty: nobody is signed in
    std::string pass;    ///< the stored credential
    std::string device;  ///< the id of this installation
};

/// Where the chat learns who is signed in; asked anew for each login. Thread: any.
class ChatIdentity {
public:
    ChatIdentity() = default;
    ChatIdentity(const ChatIdentity&) = delete;
    ChatIdentity& operator=(const ChatIdentity&) = delete;
    virtual ~ChatIdentity() = default;

    /// May throw any std::exception: the login is then tried again later.
    virtual asio::awaitable<ChatAccount> account() = 0;
};

}  // namespace skein
