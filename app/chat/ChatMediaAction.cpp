#include "app/chat/ChatAction.h"
#include "public/common/ByteCountText.h"
#include "public/common/Printable.h"

#include <CLI/CLI.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <filesystem>
#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class MediaAction final : public ChatAction {
public:
    MediaAction()
        : ChatAction({"save-media", "Save the picture or file that came with a message; no file is overwritten",
                      "skein chat save-media 7 --dir ~/Pictures"}) {}

    int run(APIPort& port) override {
        json::object wish{{"id", message_}};
        if (!folder_.empty()) wish["folder"] = std::filesystem::absolute(folder_).string();
        if (allowsLocalPeers_) wish["allowLocalPeers"] = true;
        show(port.post("api/v1/chat/media", wish), [](const json::value& saved) {
            std::cout << printable(std::string(saved.at("path").as_string())) << "  "
                      << formatByteCount(saved.at("size").to_number<std::int64_t>()) << '\n';
        });
        return 0;
    }

protected:
    void declare(CLI::App& options) override {
        options.add_option("MESSAGE", message_, "Its number, as `chat history` and `chat listen` show it")->required();
        options.add_option("--dir", folder_, "Where it goes (default: the download folder)")->type_name("DIR");
        options.add_flag("--allow-local-peers", allowsLocalPeers_,
                         "Also from a loopback or private address: the sender of the message chose it");
    }

private:
    std::int64_t message_ = 0;
    std::string folder_;
    bool allowsLocalPeers_ = false;
};

}  // namespace

void addMediaAction(ChatActions& actions) { actions.push_back(std::make_unique<MediaAction>()); }

}  // namespace skein
