#include "app/Command.h"
#include "app/HomeFolder.h"
#include "chat/ChatWSClient.h"
#include "public/common/FileLogger.h"
#include "public/common/Printable.h"
#include "public/common/SettingsStore.h"
#include "service/ServiceAccount.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <iostream>

namespace skein {

namespace {

/// What the program keeps for itself may be long, and is for no one to read in a list.
std::string shortened(std::string text) {
    constexpr std::size_t longest = 200;
    if (text.size() > longest) text = text.substr(0, longest) + "… (" + std::to_string(text.size()) + " bytes)";
    return text;
}

/// Secrets are between the program and the servers.
std::string shown(std::string_view key, const SettingValue& value) {
    const bool isSecret = key == ServiceAccount::credentialKey || key == ChatWSClient::sessionIdKey;
    return isSecret ? "(hidden)" : printable(describe(value));
}

class ConfigCommand final : public Command {
public:
    ConfigCommand()
        : Command({"config", "Read and change the settings", "skein config set customDownloadDirectory ~/films"}) {}

    void declare(CLI::App& options) override {
        get_ = options.add_subcommand("get", "Print a setting's value");
        set_ = options.add_subcommand("set", "Give a setting a value");
        unset_ = options.add_subcommand("unset", "Take a setting's value away");
        list_ = options.add_subcommand("list", "Print all settings that have a value");
        for (CLI::App* const one : {get_, set_, unset_}) one->add_option("KEY", key_, "The setting")->required();
        set_->add_option("VALUE", value_, "Its value")->required();
        options.require_subcommand(1);
    }

    int run(const GlobalOptions& global) override {
        const HomeFolder home(global.home());
        FileLogger log;
        SettingsStore settings(home.path() / "settings.db", log);
        if (*get_) return print(settings);
        if (*set_) settings.set(key_, value_);
        if (*unset_ && !settings.unset(key_)) throw CommandFailure(key_, "not set");
        if (*list_)
            for (const auto& [key, value] : settings.list())
                std::cout << printable(key) << " = " << shortened(shown(key, value)) << '\n';
        return exitStatus::done;
    }

private:
    int print(SettingsStore& settings) const {
        const auto value = settings.get(key_);
        if (!value) throw CommandFailure(key_, "not set");
        std::cout << shown(key_, *value) << '\n';
        return exitStatus::done;
    }

    CLI::App* get_ = nullptr;
    CLI::App* set_ = nullptr;
    CLI::App* unset_ = nullptr;
    CLI::App* list_ = nullptr;
    std::string key_;
    std::string value_;
};

}  // namespace

std::unique_ptr<Command> makeConfigCommand() { return std::make_unique<ConfigCommand>(); }

}  // namespace skein
