#pragma once

#include "public/common/UUID.h"

#include <cstdint>

namespace skein {

/// The values of a task that change.
enum class TaskField : std::uint8_t {
    number,
    ownerUserID,
    name,
    status,
    progress,
    downloadSpeed,
    uploadSpeed,
    peerCount,
    totalSize,
    downloadedBytes,
    files,
    errorMessage,
    statusMessage,
    stallReason,
    addedDate,
    folder,
    isPrivate,
    uploadedBytes,
    trackers,
    trackerDetails,
    peerDetails,
    comment,
    creationDate,
    pieceLength,
    pieceCount,
    pieceBitmap,
    category,
    notes,
    currencyEarned,
    currencySpent,
    currencyEarnedConfirmed,
    currencySpentConfirmed,
    dlBytesFromPlatformPeers,
    dlBytesFromPublicBT,
    dlBytesFromRelay,
    uncommittedDlBytesFromPlatformPeers,
    uncommittedDlBytesFromPublicBT,
    uncommittedDlBytesFromRelay,
    isVerifying,
    verifyProgress,
    isControlOperationInProgress,
    controlOperationMessage,
    accelerateEnabled,
};

/// A set of fields.
class TaskFields {
public:
    constexpr TaskFields() = default;
    constexpr TaskFields(TaskField field) noexcept : bits_(std::uint64_t{1} << static_cast<unsigned>(field)) {}

    constexpr bool contains(TaskField field) const noexcept { return containsAnyOf(field); }
    constexpr bool containsAnyOf(TaskFields fields) const noexcept { return (bits_ & fields.bits_) != 0; }
    constexpr bool isEmpty() const noexcept { return bits_ == 0; }
    constexpr TaskFields& operator|=(TaskFields fields) noexcept {
        bits_ |= fields.bits_;
        return *this;
    }
    friend constexpr TaskFields operator|(TaskFields one, TaskFields other) noexcept { return one |= other; }
    friend constexpr bool operator==(TaskFields, TaskFields) = default;

private:
    std::uint64_t bits_ = 0;
};

/// Published to MsgCenter whenever values of a task have changed.
struct TaskChanged {
    UUID id;
    TaskFields fields;

    bool absorb(const TaskChanged& later) noexcept {
        if (later.id != id) return false;
        fields |= later.fields;
        return true;
    }
};

}  // namespace skein
