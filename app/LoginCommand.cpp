#include "app/client/AccountCommand.h"
#include "app/client/HiddenInput.h"
#include "public/common/Printable.h"

#include <CLI/CLI.hpp>
#include <boost/json/object.hpp>

#include <iostream>
#include <string>

namespace skein {

namespace {

std::string readCredential() {
    const HiddenInput hidden;
    std::string credential;
    std::getline(std::cin, credential);
    return credential;
}

class LoginCommand final : public AccountCommand {
public:
    LoginCommand()
        : AccountCommand({"login", "Sign in at the resource service; the credential is read from stdin",
                          "skein login --user ID < credential.txt"}) {}

    void declare(CLI::App& options) override {
        options.add_option("--user", user_, "The account's id")->type_name("ID")->required();
    }

protected:
    int talk(APIPort& port) override {
        const std::string credential = readCredential();
        if (credential.empty()) throw CommandFailure("login", "no credential on stdin");
        const auto account =
            port.post("api/v1/account/login", boost::json::object{{"user", user_}, {"credential", credential}});
        std::cout << "signed in as " << printable(std::string(account.at("user").as_string())) << '\n';
        if (account.at("serverURL").as_string().empty())
            std::cerr << "The service is not known yet: skein config set skeinserverUrl URL\n";
        if (const auto* const isChecked = account.as_object().if_contains("isChecked");
            isChecked != nullptr && !isChecked->as_bool())
            std::cerr << "The service did not answer, or refused: the credential is stored, but could not be checked\n";
        return exitStatus::done;
    }

private:
    std::string user_;
};

class LogoutCommand final : public AccountCommand {
public:
    LogoutCommand() : AccountCommand({"logout", "Sign out of the resource service", "skein logout"}) {}

    void declare(CLI::App&) override {}

protected:
    int talk(APIPort& port) override {
        port.post("api/v1/account/logout");
        std::cout << "signed out\n";
        return exitStatus::done;
    }
};

}  // namespace

std::unique_ptr<Command> makeLoginCommand() { return std::make_unique<LoginCommand>(); }
std::unique_ptr<Command> makeLogoutCommand() { return std::make_unique<LogoutCommand>(); }

}  // namespace skein
