#include "Core/engine/TorrentBuilder.h"

#include "public/common/SHA1.h"
#include "public/common/TargetLock.h"
#include "public/common/ThreadPools.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// Read at once: enough for the device to stream, little enough to stay in the processor's cache until it is hashed.
constexpr std::int64_t readBytes = std::int64_t{256} << 10U;
constexpr std::chrono::milliseconds progressInterval{200};

TorrentBuildException cannotRead(const fs::path& file, const std::error_code& why) {
    return TorrentBuildException(TorrentBuildError::cannotRead, file.string() + ": " + why.message());
}

/// The source with a last component that names it, also for "folder/" and "..".
fs::path named(const fs::path& source) {
    fs::path path = fs::absolute(source);
    if (!path.has_filename()) path = path.parent_path();
    if (path.filename() == "." || path.filename() == "..") path = fs::canonical(path);
    return path;
}

}  // namespace

/// The hashing of all pieces: what its jobs share. Each job takes the next piece until there is none.
class TorrentBuilder::Hashing {
public:
    Hashing(const TorrentBuilder& builder, Bytes& pieces, const std::stop_token& stop)
        : builder_(builder), torrent_(builder.torrent_), pieces_(pieces), stop_(stop) {}

    void runJob() noexcept {
        try {
            Job job(*this);
            for (auto piece = next_++; piece < pieces_.size() / sha1Length && !shouldEnd(); piece = next_++) {
                const SHA1Digest digest = job.hash(static_cast<std::int64_t>(piece));
                std::copy(digest.begin(), digest.end(),
                          pieces_.begin() + static_cast<std::ptrdiff_t>(piece * sha1Length));
            }
        } catch (...) {
            const std::lock_guard lock(mutex_);
            if (!failure_) failure_ = std::current_exception();
            failed_ = true;
        }
        const std::lock_guard lock(mutex_);
        ++ended_;
        changed_.notify_one();
    }

    void wait(unsigned jobs, const std::function<void(std::int64_t)>& onProgress) {
        std::unique_lock lock(mutex_);
        while (!changed_.wait_for(lock, progressInterval, [this, jobs] { return ended_ == jobs; })) {
            lock.unlock();
            onProgress(hashedBytes_);
            lock.lock();
        }
        if (failure_) std::rethrow_exception(failure_);
        if (stop_.stop_requested()) throw TorrentBuildException(TorrentBuildError::stopped);
        onProgress(hashedBytes_);
    }

private:
    /// One thread's part: its buffer, and the file that it read last.
    class Job {
    public:
        explicit Job(Hashing& all) : all_(all), buffer_(static_cast<std::size_t>(readBytes)) {}

        SHA1Digest hash(std::int64_t piece) {
            const TorrentMetaInfo& torrent = all_.torrent_;
            std::int64_t offset = piece * torrent.pieceLength;
            std::int64_t left = torrent.pieceSize(static_cast<int>(piece));
            // The last file that begins at or before the piece; an empty one that begins there too comes before it.
            auto file = std::upper_bound(torrent.files.begin(), torrent.files.end(), offset,
                                         [](std::int64_t at, const TorrentFileInfo& one) { return at < one.offset; }) -
                        1;
            while (left > 0 && !all_.shouldEnd()) {
                const std::int64_t within = offset - file->offset;
                const std::int64_t count = std::min({left, file->size - within, readBytes});
                if (count > 0) read(*file, within, count);
                offset += count;
                left -= count;
                all_.hashedBytes_ += count;
                if (offset == file->offset + file->size) ++file;
            }
            return hasher_.finish();
        }

    private:
        void read(const TorrentFileInfo& file, std::int64_t from, std::int64_t count) {
            if (current_ != &file) open(file);
            for (std::int64_t done = 0; done < count && !all_.shouldEnd();) {
                const iovec part{buffer_.data() + done, static_cast<std::size_t>(count - done)};
                const ssize_t size = all_.builder_.calls_.read(opened_.number(), &part, 1, from + done);
                if (size < 0 && errno == EINTR) continue;
                if (size < 0) throw cannotRead(file.path, {errno, std::generic_category()});
                if (size == 0) throw TorrentBuildException(TorrentBuildError::changed, file.path);
                done += size;
            }
            hasher_.update(ByteView(buffer_).first(static_cast<std::size_t>(count)));
        }

        void open(const TorrentFileInfo& file) {
            FileCalls& calls = all_.builder_.calls_;
            const fs::path path = all_.builder_.folder_ / file.path;
            // Without waiting, should a pipe have taken the file's place.
            opened_ = FileDescriptor(calls.open(AT_FDCWD, path.c_str(), O_RDONLY | O_NONBLOCK, 0));
            struct stat status {};
            if (!opened_.isOpen() || calls.status(opened_.number(), status) != 0)
                throw cannotRead(file.path, {errno, std::generic_category()});
            if (!S_ISREG(status.st_mode) || status.st_size != file.size)
                throw TorrentBuildException(TorrentBuildError::changed, file.path);
            current_ = &file;
        }

        Hashing& all_;
        Bytes buffer_;
        SHA1Hasher hasher_;
        FileDescriptor opened_;
        const TorrentFileInfo* current_ = nullptr;
    };

    bool shouldEnd() const noexcept { return failed_ || stop_.stop_requested(); }

    const TorrentBuilder& builder_;
    const TorrentMetaInfo& torrent_;
    Bytes& pieces_;
    const std::stop_token stop_;
    std::atomic<std::size_t> next_ = 0;
    std::atomic<std::int64_t> hashedBytes_ = 0;
    std::atomic<bool> failed_ = false;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::exception_ptr failure_;
    unsigned ended_ = 0;
};

TorrentBuilder::TorrentBuilder(const Options& options, FileCalls& calls) : calls_(calls) {
    try {
        const fs::path source = named(options.source);
        folder_ = source.parent_path();
        torrent_.name = source.filename().string();
        if (torrent_.name.empty()) throw cannotRead(source, std::make_error_code(std::errc::invalid_argument));
        const fs::file_status status = fs::status(source);
        if (status.type() == fs::file_type::directory) {
            listFolder(source, options.leftOut);
        } else if (status.type() == fs::file_type::regular) {
            addFile(torrent_.name, fs::file_size(source));
        } else {
            const bool isMissing = status.type() == fs::file_type::not_found;
            throw cannotRead(options.source, std::make_error_code(isMissing ? std::errc::no_such_file_or_directory
                                                                            : std::errc::invalid_argument));
        }
    } catch (const fs::filesystem_error& failure) {
        throw cannotRead(failure.path1(), failure.code());
    }
    layOut();
    if (torrent_.totalSize == 0) throw TorrentBuildException(TorrentBuildError::nothingInIt);
    torrent_.pieceLength = options.pieceLength.value_or(defaultPieceLength(torrent_.totalSize));
    if ((torrent_.totalSize - 1) / torrent_.pieceLength >= maxPieces)
        throw TorrentBuildException(TorrentBuildError::tooManyPieces);
}

void TorrentBuilder::listFolder(const fs::path& source, const fs::path& leftOut) {
    const fs::path real = fs::canonical(source);
    const fs::path realLeftOut = leftOut.empty() ? leftOut : fs::weakly_canonical(leftOut);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(real)) {
        const fs::file_type type = entry.symlink_status().type();
        if (entry.path().filename() == TargetLock::fileName) continue;  // of a program that downloads to there
        if (type == fs::file_type::regular && entry.path() != realLeftOut) {
            addFile(torrent_.name + entry.path().string().substr(real.string().size()), entry.file_size());
        } else if (type != fs::file_type::directory && type != fs::file_type::regular) {
            ++leftOutCount_;
        }
    }
}

void TorrentBuilder::addFile(std::string path, std::uintmax_t sizeBytes) {
    if (!isValidUTF8(asBytes(path))) throw TorrentBuildException(TorrentBuildError::nameIsNotText, path);
    torrent_.files.edit().push_back({std::move(path), static_cast<std::int64_t>(sizeBytes), 0});
}

void TorrentBuilder::layOut() {
    FileList::Files& files = torrent_.files.edit();
    std::sort(files.begin(), files.end(),
              [](const TorrentFileInfo& left, const TorrentFileInfo& right) { return left.path < right.path; });
    for (TorrentFileInfo& file : files) {
        file.offset = torrent_.totalSize;
        // Sparse files may be larger together than any number of pieces.
        if (__builtin_add_overflow(torrent_.totalSize, file.size, &torrent_.totalSize))
            throw TorrentBuildException(TorrentBuildError::tooManyPieces);
    }
}

void TorrentBuilder::hashPieces(const asio::any_io_executor& disk, const std::stop_token& stop,
                                const std::function<void(std::int64_t hashedBytes)>& onProgress) {
    const std::int64_t count = (torrent_.totalSize + torrent_.pieceLength - 1) / torrent_.pieceLength;
    torrent_.pieces.resize(static_cast<std::size_t>(count) * sha1Length);
    Hashing hashing(*this, torrent_.pieces, stop);
    const unsigned jobs = ThreadPools::threadsEach();
    for (unsigned i = 0; i < jobs; ++i) asio::post(disk, [&hashing] { hashing.runJob(); });
    hashing.wait(jobs, onProgress);
}

std::int64_t TorrentBuilder::defaultPieceLength(std::int64_t totalSizeBytes) noexcept {
    constexpr std::int64_t wantedPieces = 2000;
    const auto atLeast = static_cast<std::uint64_t>(totalSizeBytes / wantedPieces + 1);
    return std::clamp(static_cast<std::int64_t>(std::bit_ceil(atLeast)), minPieceLength, maxDefaultPieceLength);
}

}  // namespace skein
