#include "Core/engine/StorageError.h"
#include "Core/engine/TorrentStorage.h"
#include "tests/Core/engine/FaultyCalls.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/FailureIn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <thread>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using Presence = TorrentStorage::Presence;

class TorrentStorageTest : public testing::Test {
protected:
    // The download folder itself may be a link.
    TorrentStorageTest() { fs::create_directory_symlink(real.path(), save); }

    std::unique_ptr<TorrentStorage> storageOf(const TestTorrent& torrent, StorageMode mode = StorageMode::download) {
        TorrentStorage::Environment environment{save, mode, openFiles, calls};
        return std::make_unique<TorrentStorage>(TorrentLayout(*torrent.metaInfo), std::move(environment));
    }
    /// As a download does that finds no piece on disk.
    static void prepare(TorrentStorage& storage) {
        const std::size_t all = storage.layout().files().size();
        storage.survey(0, all);
        const PieceSet none(0);
        storage.take({none, 1, {}});
        storage.makeMissing(0, all);
        storage.settle();
    }
    static std::string failureToPrepare(TorrentStorage& storage) {
        return failureIn<StorageException>([&] { prepare(storage); });
    }
    static void write(TorrentStorage& storage, std::int64_t offset, ByteView bytes) {
        const iovec from{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
        storage.write(offset, {&from, 1});
    }
    /// Splits `bytes` at random into buffers, some of them empty.
    static std::vector<iovec> scattered(std::mt19937& random, std::span<std::uint8_t> bytes) {
        std::vector<iovec> buffers;
        while (!bytes.empty()) {
            const std::size_t length = std::min<std::size_t>(random() % 40, bytes.size());
            buffers.push_back({bytes.data(), length});
            bytes = bytes.subspan(length);
        }
        return buffers;
    }

    TemporaryFolder real;
    TemporaryFolder outside;
    const fs::path save = outside.path() / "save";
    FaultyCalls calls;
    std::shared_ptr<OpenFiles> openFiles = std::make_shared<OpenFiles>(4);
};

TEST_F(TorrentStorageTest, readsAndWritesRandomLayoutsLikeOneLongFile) {
    std::mt19937 random(4);
    calls.interruptsEverySecond = true;
    for (int round = 0; round < 40; ++round) {
        calls.longestTransfer = round % 2 == 0 ? 0 : 1 + random() % 50;
        TestTorrent::Files files{{"t" + std::to_string(round) + "/first", 100}};
        for (std::size_t i = 0, count = random() % 12; i < count; ++i)
            files.emplace_back("t" + std::to_string(round) + "/" + std::string(i % 3, 'd') + "/" + std::to_string(i),
                               random() % 4 == 0 ? 0 : random() % 300);
        TestTorrent torrent(64, files);
        const auto storage = storageOf(torrent);
        prepare(*storage);
        Bytes& model = torrent.content;
        write(*storage, 0, model);
        for (int i = 0; i < 30; ++i) {
            const std::size_t at = random() % model.size();
            const std::span<std::uint8_t> range = std::span(model).subspan(at, random() % (model.size() - at + 1));
            if (i % 2 == 0) {
                for (std::uint8_t& byte : range) byte = static_cast<std::uint8_t>(random());
                storage->write(static_cast<std::int64_t>(at), scattered(random, range));
            } else {
                Bytes got(range.size());
                storage->read(static_cast<std::int64_t>(at), scattered(random, got));
                ASSERT_TRUE(std::ranges::equal(got, range));
            }
        }
        EXPECT_TRUE(torrent.isWholeIn(save));
        EXPECT_LE(openFiles->count(), 4U);
    }
}

TEST_F(TorrentStorageTest, givesAFileItsSizeWithTheFirstPieceWrittenToIt) {
    const TestTorrent torrent(4, {{"t/new", 9}, {"t/empty", 0}, {"t/other", 8}});
    const auto storage = storageOf(torrent);
    prepare(*storage);
    for (const char* name : {"t/new", "t/empty", "t/other"}) EXPECT_TRUE(fs::is_empty(save / name));
    write(*storage, 0, torrent.bytes(0, 4));
    EXPECT_EQ(fs::file_size(save / "t/new"), 9U);
    EXPECT_TRUE(fs::is_empty(save / "t/other"));
    std::ofstream(save / "t/other", std::ios::app) << "longer by somebody else's hand";
    write(*storage, 9, torrent.bytes(9, 4));
    EXPECT_EQ(fs::file_size(save / "t/other"), 30U);
}

TEST_F(TorrentStorageTest, neverFollowsALinkOutOfTheDownloadFolder) {
    const TestTorrent torrent(4, {{"t/sub/a", 9}, {"t/b", 3}});
    const auto storage = storageOf(torrent);
    fs::create_directory(save / "t");
    fs::create_directory_symlink(outside.path(), save / "t/sub");
    EXPECT_EQ(failureToPrepare(*storage), "Symbolic link inside the download folder: t/sub/a");
    fs::remove(save / "t/sub");
    fs::create_symlink(outside.path() / "b", save / "t/b");
    EXPECT_EQ(failureToPrepare(*storage), "Symbolic link inside the download folder: t/b");
    fs::remove(save / "t/b");
    prepare(*storage);
    // One that is put there later is met when the file is next opened.
    fs::rename(save / "t/sub", outside.path() / "sub");
    fs::create_directory_symlink(outside.path() / "sub", save / "t/sub");
    EXPECT_THAT(failureIn<StorageException>([&] { write(*storage, 0, torrent.bytes(0, 4)); }),
                HasSubstr("Symbolic link"));
    EXPECT_TRUE(fs::is_empty(outside.path() / "sub/a"));
}

TEST_F(TorrentStorageTest, saysWhatStandsInTheWay) {
    const TestTorrent torrent(4, {{"t/a", 9}});
    const auto storage = storageOf(torrent);
    fs::create_directories(save / "t/a");
    EXPECT_EQ(failureToPrepare(*storage), "t/a: Is a directory");
    fs::remove(save / "t/a");
    ASSERT_EQ(::mkfifo((save / "t/a").c_str(), 0600), 0);
    EXPECT_EQ(failureToPrepare(*storage), "Not a regular file: t/a");
    fs::remove(save / "t/a");
    prepare(*storage);
    write(*storage, 0, torrent.bytes(0, 4));
    EXPECT_FALSE(storage->syncSome());
    EXPECT_EQ(calls.syncs, 1);
    fs::remove(save / "t/a");  // while it is open
    EXPECT_EQ(failureIn<StorageException>([&] { write(*storage, 4, torrent.bytes(4, 4)); }),
              "t/a: No such file or directory");
    fs::remove(save / "t");
    std::ofstream(save / "t") << "a file";
    EXPECT_EQ(failureToPrepare(*storage), "t/a: Not a directory");
}

TEST_F(TorrentStorageTest, tellsDataFromHolesAndFromNothing) {
    constexpr std::int64_t step = 65536;  // no file system keeps holes in smaller steps than this
    const TestTorrent torrent(step, {{"t/a", 8 * step}, {"t/b", step}, {"t/c", step}}, 1);
    const auto storage = storageOf(torrent);
    prepare(*storage);
    write(*storage, 3 * step, torrent.bytes(0, step));
    fs::resize_file(save / "t/b", 1);
    fs::resize_file(save / "t/c", step);
    TorrentStorage::PresenceNotes notes;
    const auto at = [&](int first, int count) { return storage->presenceOf(first * step, count * step, notes); };
    for (const auto& [first, count] : {std::pair(0, 3), {2, 1}, {4, 4}, {9, 1}})
        EXPECT_EQ(at(first, count), Presence::zeros);
    for (const auto& [first, count] : {std::pair(2, 2), {3, 1}, {3, 2}, {0, 8}})
        EXPECT_EQ(at(first, count), Presence::data);
    for (const auto& [first, count] : {std::pair(7, 2), {8, 1}, {0, 10}}) EXPECT_EQ(at(first, count), Presence::absent);
}

TEST_F(TorrentStorageTest, keepsFewFilesOpenWhateverTheirNumber) {
    TestTorrent::Files files;
    for (int i = 0; i < 2000; ++i) files.emplace_back("t/" + std::to_string(i), 7);
    const TestTorrent torrent(1000, files);
    openFiles = std::make_shared<OpenFiles>();
    const auto storage = storageOf(torrent);
    prepare(*storage);
    // So few that the 64 of the cache do not fit either.
    calls.descriptorLimit = FileDescriptor(calls.open(AT_FDCWD, "/", O_RDONLY, 0)).number() + 20;
    std::vector<std::thread> threads;
    for (int part = 0; part < 4; ++part)
        threads.emplace_back([&, part] {
            for (int piece = part; piece < 14; piece += 4) {
                write(*storage, piece * 1000, torrent.piece(piece));
                Bytes got(1000);
                const iovec into{got.data(), got.size()};
                storage->read(piece * 1000, {&into, 1});
                EXPECT_TRUE(std::ranges::equal(got, torrent.piece(piece)));
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(torrent.isWholeIn(save));
    EXPECT_LE(openFiles->count(), 20U);
    storage->close();
    EXPECT_EQ(openFiles->count(), 0U);
}

}  // namespace
}  // namespace skein
