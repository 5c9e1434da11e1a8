#pragma once

#include <string>
#include <string_view>

namespace skein {

/// Tells the user of a download that is complete. Thread: any.
class CompletionNotifier {
public:
    static constexpr std::string_view title = "Download Complete";

    CompletionNotifier() = default;
    CompletionNotifier(const CompletionNotifier&) = delete;
    CompletionNotifier& operator=(const CompletionNotifier&) = delete;
    virtual ~CompletionNotifier() = default;

    /// Returns at once. `name` is the task's.
    virtual void sendCompletionNotification(std::string name) = 0;
};

}  // namespace skein
