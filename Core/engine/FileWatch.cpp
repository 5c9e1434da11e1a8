#include "Core/engine/FileWatch.h"

namespace skein {

void FileWatch::beginCheck(std::size_t index, const FileStamp& stamp) {
    left_[index] = stamp;
    doubted_.erase(index);
}

/// Of a file that was not there nothing can have been good.
void FileWatch::compare(std::size_t index, const FileStamp& stamp) {
    if (left_[index].isFile() && left_[index] != stamp) doubt(index);
}

void FileWatch::noteWrite(std::size_t index, const FileStamp& stamp) { left_[index] = stamp; }

FileStamp FileWatch::vouchedFor(std::size_t index) const {
    return doubted_.contains(index) ? FileStamp() : left_[index];
}

}  // namespace skein
