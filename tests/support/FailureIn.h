#pragma once

#include <string>

namespace skein {

/// The text of the `Failure` that `work` throws; "none" when it throws nothing.
template <class Failure, class Work>
std::string failureIn(Work work) {
    try {
        work();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "none";
}

}  // namespace skein
