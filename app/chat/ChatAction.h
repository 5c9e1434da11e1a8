#pragma once

#include "app/client/APIPort.h"

#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace skein {

/// One thing that `skein chat` does: `skein chat NAME …`. To add one, write a file like ChatMediaAction.cpp and put its
/// maker into the list in ChatCommand.cpp. Owner and thread: the command, on the main thread.
class ChatAction {
public:
    struct Description {
        std::string name;
        std::string purpose;
        std::string example;  ///< a command line that works, for --help
    };

    explicit ChatAction(Description description) : description_(std::move(description)) {}
    ChatAction(const ChatAction&) = delete;
    ChatAction& operator=(const ChatAction&) = delete;
    virtual ~ChatAction() = default;

    void addTo(CLI::App& chat);
    bool isChosen() const;
    /// Does it and returns the exit status. Throws CommandFailure.
    virtual int run(APIPort& port) = 0;

protected:
    /// Names the options and where their values go, which are members.
    virtual void declare(CLI::App& options) = 0;
    bool isJSON() const noexcept { return isJSON_; }
    /// With `--json` as it is, else with `print`.
    template <class Print>
    void show(const boost::json::value& answer, Print print) const {
        if (isJSON_) {
            showJSON(answer);
        } else {
            print(answer);
        }
    }
    /// The answer to what has no result: nothing is said of it without `--json`.
    void showDone(const boost::json::value& answer) const;

private:
    static void showJSON(const boost::json::value& answer);

    const Description description_;
    CLI::App* command_ = nullptr;
    bool isJSON_ = false;
};

using ChatActions = std::vector<std::unique_ptr<ChatAction>>;

// Each adds its actions, in the order in which --help lists them.
void addTellActions(ChatActions& actions);
void addTalkActions(ChatActions& actions);
void addHistoryAction(ChatActions& actions);
void addMediaAction(ChatActions& actions);
void addContactActions(ChatActions& actions);
void addListenAction(ChatActions& actions);

}  // namespace skein
