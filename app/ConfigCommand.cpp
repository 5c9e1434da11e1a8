#include "Core/engine/ResourceTexts.h"
#include "app/Command.h"
#include "app/HomeFolder.h"
#include "app/SettingCatalogue.h"
#include "app/api/DaemonFile.h"
#include "chat/ChatWSClient.h"
#include "public/common/FileLogger.h"
#include "public/common/Printable.h"
#include "public/common/SettingsStore.h"
#include "public/common/ShownURL.h"
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

std::string_view textOf(SettingEffect effect) noexcept {
    switch (effect) {
        case SettingEffect::atOnce: return "acts at once";
        case SettingEffect::forNewTasks: return "acts in tasks that start from then on";
        case SettingEffect::afterRestart: return "acts when the daemon is started again";
    }
    return "";
}

/// " (Seed for free)" after the value of a setting whose values have names; empty for others.
std::string nameOf(std::string_view key, std::string_view value) {
    const auto mode = key == "uploadMode" ? uploadModeFrom(value) : std::nullopt;
    return mode ? " (" + std::string(displayNameOf(*mode)) + ")" : std::string();
}

/// Ends with the exit status of a wrong command line.
int refuse(std::string_view what) {
    reportFailure("config: " + std::string(what));
    return exitStatus::wrongCommandLine;
}

int refuseUnknown(const std::string& key) {
    std::string known;
    for (const SettingDescription& setting : settingCatalogue())
        known.append(known.empty() ? "" : ", ").append(setting.key);
    return refuse("unknown setting '" + key + "' - known are " + known);
}

class ConfigCommand final : public Command {
public:
    ConfigCommand()
        : Command({"config", "Read and change the settings", "skein config set customDownloadDirectory ~/films"}) {}

    void declare(CLI::App& options) override {
        get_ = options.add_subcommand("get", "Print a setting's value");
        set_ = options.add_subcommand("set", "Give a setting a value");
        unset_ = options.add_subcommand("unset", "Take a setting's value away, so that its default holds");
        list_ = options.add_subcommand("list", "Print all settings, their values and what they mean");
        for (CLI::App* const one : {get_, set_, unset_}) one->add_option("KEY", key_, "The setting")->required();
        set_->add_option("VALUE", value_, "Its value")->required();
        options.require_subcommand(1);
    }

    int run(const GlobalOptions& global) override {
        const HomeFolder home(global.home());
        FileLogger log;
        SettingsStore settings(home.path() / "settings.db", log);
        if (*list_) return list(settings);
        const SettingDescription* const setting = findSetting(key_);
        if (*get_) return print(settings, setting);
        if (setting == nullptr) return refuseUnknown(key_);
        if (*set_ && !setting->allows(value_))
            return refuse(key_ + " cannot be '" + value_ + "' - allowed is: " + setting->allowed());
        if (*set_) settings.set(key_, value_);
        if (*unset_ && !settings.unset(key_)) {
            std::cerr << key_ << " was not set; its default holds: " << setting->standard << '\n';
            return exitStatus::done;
        }
        if (setting->effect != SettingEffect::atOnce && DaemonAddress::isClaimed(home.path()))
            std::cerr << key_ << ' ' << textOf(setting->effect) << '\n';
        return exitStatus::done;
    }

private:
    int print(SettingsStore& settings, const SettingDescription* setting) const {
        if (const auto value = settings.get(key_)) {
            std::cout << shown(key_, *value) << '\n';
            return exitStatus::done;
        }
        if (setting == nullptr) return refuseUnknown(key_);
        throw CommandFailure(key_, "not set; its default is: " + std::string(setting->standard));
    }

    static int list(SettingsStore& settings) {
        auto stored = settings.list();
        for (const SettingDescription& setting : settingCatalogue()) {
            const auto value = stored.extract(std::string(setting.key));
            std::cout << setting.key;
            if (value) {
                const std::string text = shown(setting.key, value.mapped());
                std::cout << " = " << shortened(withShownURLs(text)) << nameOf(setting.key, text) << '\n';
            } else {
                std::cout << " is not set (default: " << setting.standard << nameOf(setting.key, setting.standard)
                          << ")\n";
            }
            std::cout << "    " << setting.meaning << ".\n    Allowed: " << setting.allowed() << "; "
                      << textOf(setting.effect) << ".\n";
        }
        if (!stored.empty()) std::cout << "\nKept by the program for itself:\n";
        for (const auto& [key, value] : stored)
            std::cout << "    " << printable(key) << " = " << shortened(withShownURLs(shown(key, value))) << '\n';
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
