#include "public/common/NetworkRefusal.h"

#include <string>

namespace skein {

namespace {

class Category final : public boost::system::error_category {
public:
    const char* name() const noexcept override { return "skein.network"; }
    std::string message(int value) const override {
        switch (static_cast<NetworkRefusal>(value)) {
            case NetworkRefusal::familyNotBound: return "There is no local address of this family to use (--bind)";
            case NetworkRefusal::interfaceGone: return "The network interface to use (--bind) is not there";
            case NetworkRefusal::notPublic:
                return "The address is not public, and was not named by the user (--tracker, --allow-local-peers)";
        }
        return {};
    }
};

}  // namespace

boost::system::error_code make_error_code(NetworkRefusal refusal) noexcept {
    static const Category category;
    return {static_cast<int>(refusal), category};
}

}  // namespace skein
