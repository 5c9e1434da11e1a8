#include "app/api/DaemonFile.h"

#include "app/Command.h"
#include "public/common/PlainJSON.h"
#include "public/common/WholeFile.h"

#include <boost/asio/ip/address.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace skein {

namespace {

namespace fs = std::filesystem;
namespace json = boost::json;

constexpr std::size_t maxBytes = 4096;

fs::path fileIn(const fs::path& home) { return home / "daemon.json"; }
fs::path lockIn(const fs::path& home) { return home / "daemon.lock"; }

/// Those who only ask whether there is a daemon hold the lock for a moment, and must not keep one from starting.
bool claim(int file) {
    constexpr int attempts = 20;
    constexpr std::chrono::milliseconds pause{50};
    for (int i = 0; i < attempts; ++i) {
        if (::flock(file, LOCK_EX | LOCK_NB) == 0) return true;
        std::this_thread::sleep_for(pause);
    }
    return false;
}

std::optional<DaemonAddress> read(const fs::path& home) {
    try {
        const Bytes bytes = readWholeFile(fileIn(home), maxBytes);
        const json::object object = json::parse(asText(bytes)).as_object();
        DaemonAddress daemon;
        daemon.address = std::string(object.at("address").as_string());
        daemon.port = object.at("port").to_number<std::uint16_t>();
        daemon.processID = object.at("pid").to_number<std::int64_t>();
        daemon.token = std::string(object.at("token").as_string());
        return daemon;
    } catch (const std::exception&) {
        return std::nullopt;  // none, or none that can be used
    }
}

}  // namespace

std::string DaemonAddress::url() const {
    const bool isIPv6 = address.find(':') != std::string::npos;
    return "http://" + (isIPv6 ? "[" + address + "]" : address) + ":" + std::to_string(port) + "/";
}

bool DaemonAddress::isClaimed(const fs::path& home) {
    const int file = ::open(lockIn(home).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return false;
    // Shared, so that two who ask do not take each other for a daemon.
    const bool isHeld = ::flock(file, LOCK_SH | LOCK_NB) != 0;
    ::close(file);
    return isHeld;
}

std::string DaemonAddress::reachable(const std::string& address) {
    const auto literal = boost::asio::ip::make_address(address);
    if (!literal.is_unspecified()) return address;
    return literal.is_v6() ? "::1" : "127.0.0.1";
}

std::optional<DaemonAddress> DaemonAddress::find(const fs::path& home) {
    return isClaimed(home) ? read(home) : std::nullopt;
}

DaemonFile::DaemonFile(fs::path home) : home_(std::move(home)) {
    lock_ = ::open(lockIn(home_).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (lock_ < 0) throw CommandFailure(lockIn(home_).string(), std::generic_category().message(errno));
    if (claim(lock_)) {
        // One that was killed has left its address behind, where nobody serves any more.
        std::error_code ignored;
        fs::remove(fileIn(home_), ignored);
        return;
    }
    ::close(lock_);
    const auto other = read(home_);
    throw CommandFailure("daemon", other ? "process " + std::to_string(other->processID) + " serves this home already"
                                         : "another process serves this home already");
}

DaemonFile::~DaemonFile() {
    std::error_code ignored;
    if (isPublished_) fs::remove(fileIn(home_), ignored);
    ::close(lock_);
}

void DaemonFile::publish(const DaemonAddress& daemon) {
    const json::object object{
        {"address", daemon.address}, {"port", daemon.port}, {"pid", daemon.processID}, {"token", daemon.token}};
    try {
        replaceWholeFile(fileIn(home_), asBytes(plainJSON(object)));
    } catch (const std::system_error& error) {
        throw CommandFailure(fileIn(home_).string(), error.code().message());
    }
    isPublished_ = true;
}

}  // namespace skein
