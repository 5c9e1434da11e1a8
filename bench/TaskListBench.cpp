// task_list [TASKS] [FILES]: loads a saved list of that many tasks (10,000 of 10 files each), lists and saves it, and
// says how long each took and how much memory was in use at most. A process of its own makes the list, so that its
// memory does not count.

#include "downloads/SavedTaskCodec.h"
#include "downloads/TaskListJSON.h"
#include "downloads/TaskStore.h"
#include "public/common/ResidentMemory.h"
#include "public/common/ThreadPools.h"
#include "public/common/WholeFile.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace skein {
namespace {

namespace fs = std::filesystem;

void makeList(const fs::path& file, int tasks, int files) {
    SecureRandom random;
    std::vector<SavedTask> list;
    for (int i = 0; i < tasks; ++i) {
        Bytes hash(20);
        random.fill(hash);
        SavedTask task{.infoHash = toHex(hash),
                       .name = "Lectures on the theory of numbers " + std::to_string(i),
                       .magnetURI = "magnet:?xt=urn:btih:" + toHex(hash) + "&tr=udp%3A%2F%2Ftracker.example%3A6969",
                       .addedDate = Clock::WallTime(std::chrono::seconds(1'767'225'600 + i)),
                       .status = "completed",
                       .totalSize = 700'000'000,
                       .progress = 1.0,
                       .category = "course",
                       .notes = "",
                       .downloadType = "torrent",
                       .accelerateEnabled = false};
        FileList::Files contents;
        for (int f = 0; f < files; ++f)
            contents.push_back(
                {task.name + "/Part 1/Lecture " + std::to_string(f) + ".mp4", 70'000'000, f * 70'000'000L});
        task.files = FileList(std::move(contents));
        list.push_back(std::move(task));
    }
    replaceWholeFile(file, asBytes(SavedTaskCodec::encode(list)));
}

class Stopwatch {
public:
    void say(const char* what) {
        const auto now = std::chrono::steady_clock::now();
        std::printf("%-28s %8.1f ms\n", what, std::chrono::duration<double, std::milli>(now - start_).count());
        start_ = std::chrono::steady_clock::now();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

std::vector<SavedTask> snapshotOf(const std::vector<std::shared_ptr<TorrentTask>>& tasks) {
    std::vector<SavedTask> saved;
    saved.reserve(tasks.size());
    for (const auto& task : tasks) saved.push_back(SavedTask::of(*task));
    return saved;
}

void sayMemory(const char* when) {
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
#ifdef __APPLE__
    const double peak = static_cast<double>(usage.ru_maxrss);
#else
    const double peak = static_cast<double>(usage.ru_maxrss) * 1024;
#endif
    std::printf("memory %-21s %8.1f MB, at most %.1f MB\n", when, static_cast<double>(residentMemoryBytes()) / 1e6,
                peak / 1e6);
}

void measure(const fs::path& folder) {
    ThreadPools pools;
    RealClock clock;
    FileLogger log;
    SecureRandom random;
    MsgCenter center;
    const Strand main{pools.io()};
    std::vector<std::shared_ptr<TorrentTask>> tasks;
    TaskStore store(main, pools.disk(), clock, log, folder, [&] { return snapshotOf(tasks); });
    sayMemory("at the start");

    Stopwatch watch;
    std::vector<SavedTask> saved = asio::co_spawn(main, store.loadSavedTasks(), asio::use_future).get();
    watch.say("read and decode");
    tasks.reserve(saved.size());
    for (SavedTask& task : saved) tasks.push_back(std::move(task).restore(center, random));
    saved = {};
    watch.say("restore");
    std::string listed = "[";
    for (const auto& task : tasks) listed += taskAsJSON(*task) + ",";
    listed.back() = ']';
    watch.say("list");
    std::printf("%zu tasks, listed in %zu bytes\n", tasks.size(), listed.size());
    sayMemory("once listed");

    listed = {};
    Stopwatch saving;
    (void)snapshotOf(tasks);
    saving.say("copy for a save");
    asio::post(main, [&] { store.saveTasks(); });
    asio::co_spawn(main, store.stop(), asio::use_future).get();
    saving.say("save, as a whole");
    sayMemory("after a save");
}

}  // namespace
}  // namespace skein

int main(int count, char** arguments) {
    using namespace skein;
    std::string folder = (fs::temp_directory_path() / "skein-bench-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) return 1;
    const fs::path file = fs::path(folder) / TaskStore::tasksFile;
    const pid_t maker = ::fork();
    if (maker == 0) {
        makeList(file, count > 1 ? std::atoi(arguments[1]) : 10'000, count > 2 ? std::atoi(arguments[2]) : 10);
        ::_exit(0);
    }
    ::waitpid(maker, nullptr, 0);
    std::printf("%-28s %8.1f MB\n", "tasks.json", static_cast<double>(fs::file_size(file)) / 1e6);
    measure(folder);
    fs::remove_all(folder);
    return 0;
}
