// Times whole syncs and restores of `qrd` and prints a table. In the same run stand beside the syncs `unzip -q` of the
// same archives, the least that installing them can take (bench/floor.cpp), and, where the machine has them, `bsdtar`
// on two archives at a time and `dpkg -i` of packages with the same content.
//
// Usage: sync_bench QRD FOLDER [small] [restore] [large] [hundred]
//
// Measures the parts that are named, or all. FOLDER is made, filled and removed; the runs alternate, and the medians
// count.
#include "bench/Watchers.h"
#include "desktop/ArchivePacker.h"
#include "files/Descriptor.h"
#include "propertylist/Codec.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using appsync::desktop::packApp;

struct Measured {
    double seconds = 0;
    double peakMegabytes = 0;
};

/// Runs a command with its output thrown away, or heard; ends the program when it fails.
Measured run(const std::vector<std::string>& words, appsync::bench::Heard* heard = nullptr) {
    std::vector<char*> arguments;
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::array<int, 2> pipe{-1, -1};
    if (heard && pipe2(pipe.data(), O_CLOEXEC) == 0) {
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    const appsync::Descriptor output(pipe[0]);
    appsync::Descriptor input(pipe[1]);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
        std::cerr << "cannot run " << words[0] << '\n';
        std::exit(1);
    }
    posix_spawn_file_actions_destroy(&actions);
    input = {};
    if (heard) {
        appsync::bench::hear(output.get(), *heard);
    }
    int status = 0;
    rusage usage = {};
    wait4(child, &status, 0, &usage);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (status != 0) {
        std::cerr << words[0] << " failed with status " << status << '\n';
        std::exit(1);
    }
    return {elapsed.count(), static_cast<double>(usage.ru_maxrss) / 1024};
}

constexpr int rounds = 3;

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

/// Bytes of which about half compresses, as an app's do.
std::string content(std::size_t size, std::mt19937& random) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i / 64) % 2 == 0 ? random() : 'a' + random() % 4);
    }
    return bytes;
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

/// An app of one binary and `files` resources, packed into the library.
void addApp(const fs::path& library, int number, std::size_t binary, int files, std::size_t fileSize) {
    std::mt19937 random(static_cast<unsigned>(number));
    const std::string name = "App" + std::to_string(number);
    const fs::path folder = library.parent_path() / "packing" / name; // left there: see newFolder
    const fs::path app = folder / (name + ".app");
    fs::create_directories(app / "Resources");
    writeFile(app / "Info.plist",
              "<plist version=\"1.0\"><dict><key>BXBundleIdentifier</key><string>com.example.bench." + name +
                  "</string><key>BXBundleVersion</key><string>1.0</string>" +
                  "<key>BXBundleExecutable</key><string>main</string>" + "<key>BXBundleDisplayName</key><string>" +
                  name + "</string></dict></plist>");
    writeFile(app / "main", content(binary, random));
    for (int file = 0; file < files; ++file) {
        writeFile(app / "Resources" / ("file" + std::to_string(file)), content(fileSize, random));
    }
    writeFile(folder / "TamblinArtwork", content(2000, random));
    writeFile(folder / "TamblinMetadata.plist",
              "<plist version=\"1.0\"><dict><key>title</key><string>" + name + "</string></dict></plist>");
    appsync::PropertyListCodec propertyLists;
    const auto packed = packApp(folder.string(), (library / (name + ".archive")).string(), propertyLists);
    if (!packed) {
        std::cerr << packed.error()->description() << '\n';
        std::exit(1);
    }
}

/// Has a file system that knows this (ext4) put each folder in this one into another region of the disk: creating files
/// is slow for a while where many have been deleted, and so no run slows the next one down.
void keepFoldersApart(const fs::path& folder) {
    const appsync::Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int flags = 0;
    if (::ioctl(opened.get(), FS_IOC_GETFLAGS, &flags) == 0) {
        flags |= FS_TOPDIR_FL;
        ::ioctl(opened.get(), FS_IOC_SETFLAGS, &flags);
    }
}

/// A path that no run has used. What a run leaves stays until the end.
fs::path newFolder(const fs::path& folder) {
    static int runs = 0;
    return folder / ("run" + std::to_string(++runs));
}

/// A device that nothing has been written to for a while.
fs::path newDevice(const std::string& qrd, const fs::path& folder, bool coordinated) {
    const fs::path own = newFolder(folder);
    fs::create_directories(own);
    fs::path device = own / "device";
    std::vector<std::string> create{qrd, "device", "create", device};
    if (!coordinated) {
        create.emplace_back("--no-coordination");
    }
    run(create);
    ::sync(); // what was written before is not this run's to flush
    return device;
}

Measured syncOnce(const std::string& qrd, const fs::path& folder, const fs::path& library, bool coordinated) {
    const fs::path device = newDevice(qrd, folder, coordinated);
    return run({qrd, "sync", device, "--library", library, "--json"});
}

std::vector<std::string> filesIn(const fs::path& folder) {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(folder)) {
        files.push_back(entry.path());
    }
    std::ranges::sort(files);
    return files;
}

/// The lags of what one of four pages shows are added to `lags`.
double watchedSyncOnce(const std::string& qrd, const fs::path& folder, const fs::path& library,
                       std::vector<double>& lags) {
    const fs::path device = newDevice(qrd, folder, true);
    appsync::bench::Watchers watchers(qrd, device, 4);
    appsync::bench::Heard sync;
    const double seconds = run({qrd, "sync", device, "--library", library, "--json=lines"}, &sync).seconds;
    std::this_thread::sleep_for(std::chrono::seconds(1)); // what is not on the page by then is late enough
    std::ranges::copy(appsync::bench::lagsOf(sync, watchers.end()).all(), std::back_inserter(lags));
    return seconds;
}

double unzipOnce(const fs::path& folder, const fs::path& library) {
    const fs::path target = newFolder(folder);
    fs::create_directories(target);
    const auto archives = filesIn(library);
    ::sync();
    double seconds = 0;
    for (std::size_t i = 0; i < archives.size(); ++i) {
        seconds += run({"unzip", "-q", archives[i], "-d", target / std::to_string(i)}).seconds;
    }
    return seconds;
}

double secondsOf(const auto& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool isThere(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null").c_str()) == 0;
}

double bsdtarOnce(const fs::path& folder, const fs::path& library) {
    const fs::path target = newFolder(folder);
    const auto archives = filesIn(library);
    for (std::size_t i = 0; i < archives.size(); ++i) {
        fs::create_directories(target / std::to_string(i));
    }
    ::sync();
    return secondsOf([&] {
        std::atomic<std::size_t> next = 0;
        const auto unpack = [&] {
            for (std::size_t i = next++; i < archives.size(); i = next++) {
                run({"bsdtar", "-xf", archives[i], "-C", target / std::to_string(i)});
            }
        };
        const std::jthread other(unpack);
        unpack();
    });
}

/// A package of the same content for each archive: in `asMade` compressed as dpkg-deb does it unasked, in
/// `asArchives` deflated as the archives are.
void makePackages(const fs::path& asMade, const fs::path& asArchives, const fs::path& library) {
    fs::create_directories(asMade);
    fs::create_directories(asArchives);
    int number = 0;
    for (const std::string& archive : filesIn(library)) {
        const std::string name = "bench" + std::to_string(++number);
        const fs::path content = asMade.parent_path() / "packing" / name;
        fs::create_directories(content / "DEBIAN");
        fs::create_directories(content / "opt");
        writeFile(content / "DEBIAN" / "control", "Package: " + name +
                                                      "\nVersion: 1\nArchitecture: all\nMaintainer: bench "
                                                      "<bench@example.com>\nDescription: an app\n");
        run({"unzip", "-q", archive, "-d", content / "opt" / name});
        const std::string file = name + ".deb";
        run({"dpkg-deb", "--root-owner-group", "--build", content, asMade / file});
        run({"dpkg-deb", "-Zgzip", "--root-owner-group", "--build", content, asArchives / file});
    }
}

double dpkgOnce(const fs::path& folder, const fs::path& packages) {
    const fs::path target = newFolder(folder);
    for (const char* part : {"info", "updates", "triggers"}) {
        fs::create_directories(target / "var/lib/dpkg" / part);
    }
    writeFile(target / "var/lib/dpkg/status", "");
    std::vector<std::string> install{"dpkg", "--root=" + target.string(), "--force-not-root", "--log=/dev/null", "-i"};
    std::ranges::copy(filesIn(packages), std::back_inserter(install));
    ::sync();
    return run(install).seconds;
}

/// What making a file of 64 KB durable in the place of another takes, in milliseconds.
double durableWrite(const fs::path& folder) {
    const std::string bytes(64 << 10, 'x');
    const appsync::Descriptor place(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<double> times;
    for (int i = 0; i < 51; ++i) {
        times.push_back(1000 * secondsOf([&] {
                            const appsync::Descriptor file(
                                ::openat(place.get(), "new", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
                            if (::write(file.get(), bytes.data(), bytes.size()) < 0 || ::fdatasync(file.get()) != 0 ||
                                ::renameat(place.get(), "new", place.get(), "file") != 0 || ::fsync(place.get()) != 0) {
                                std::cerr << "cannot write in " << folder << '\n';
                                std::exit(1);
                            }
                        }));
    }
    return median(times);
}

/// The program lies beside `qrd`.
double floorOnce(const std::string& qrd, const fs::path& folder, const fs::path& library) {
    const fs::path target = newFolder(folder);
    ::sync();
    return run({fs::path(qrd).parent_path() / "floor", library, target}).seconds;
}

void row(const char* what, double figure, const char* unit, double bound) {
    std::printf("%-64s %10.2f %-10s at most %7.2f   %s\n", what, figure, unit, bound,
                figure <= bound ? "ok" : "MISSED");
}

/// Hard links to the first archives of a library.
fs::path partOf(const fs::path& library, std::size_t apps) {
    const fs::path part = library.parent_path() / ("library-of-" + std::to_string(apps));
    fs::create_directories(part);
    for (const fs::path file : filesIn(library)) {
        if (apps-- == 0) {
            break;
        }
        fs::create_hard_link(file, part / file.filename());
    }
    return part;
}

void compareWithUnpackers(const std::string& qrd, const fs::path& folder, const fs::path& library) {
    const bool hasBsdtar = isThere("bsdtar");
    std::vector<double> coordinated;
    std::vector<double> own;
    std::vector<double> unzip;
    std::vector<double> least;
    std::vector<double> bsdtar;
    std::vector<double> peak;
    for (int round = 0; round < rounds; ++round) {
        unzip.push_back(unzipOnce(folder, library)); // first, since it minds least what the disk still has to write
        const Measured sync = syncOnce(qrd, folder, library, true);
        coordinated.push_back(sync.seconds);
        peak.push_back(sync.peakMegabytes);
        least.push_back(floorOnce(qrd, folder, library));
        own.push_back(syncOnce(qrd, folder, library, false).seconds);
        if (hasBsdtar) {
            bsdtar.push_back(bsdtarOnce(folder, library));
        }
    }
    std::printf(
        "100 archives of 4 MB, medians of %d: sync %.2f s coordinated, %.2f s by the plug-in; the least %.2f s, "
        "unzip -q one after another %.2f s\n",
        rounds, median(coordinated), median(own), median(least), median(unzip));
    row("coordinated sync, wall time beside unzip -q", median(coordinated) / median(unzip), "times", 0.36);
    row("coordinated sync, wall time beside the least", median(coordinated) / median(least), "times", 1.25);
    row("sync by the plug-in itself, wall time beside unzip -q", median(own) / median(unzip), "times", 0.36);
    row("sync by the plug-in itself, wall time beside the least", median(own) / median(least), "times", 1.25);
    if (hasBsdtar) {
        row("coordinated sync, wall time beside bsdtar, two at a time", median(coordinated) / median(bsdtar), "times",
            1);
    }
    row("coordinated sync, peak memory", median(peak), "MB", 100);
}

/// With a part of the apps, since making packages takes long.
void compareWithPackages(const std::string& qrd, const fs::path& folder, const fs::path& library) {
    if (!isThere("dpkg-deb")) {
        return;
    }
    constexpr std::size_t apps = 25;
    const fs::path part = partOf(library, apps);
    const fs::path packages = folder / "packages";
    const fs::path deflated = folder / "deflated-packages";
    makePackages(packages, deflated, part);
    std::vector<double> sync;
    std::vector<double> asMade;
    std::vector<double> asArchives;
    for (int round = 0; round < rounds; ++round) {
        sync.push_back(syncOnce(qrd, folder, part, true).seconds);
        asMade.push_back(dpkgOnce(folder, packages));
        asArchives.push_back(dpkgOnce(folder, deflated));
    }
    row("coordinated sync of 25 of them, wall time beside dpkg -i", median(sync) / median(asMade), "times", 0.15);
    row("the same, packages deflated as the archives are", median(sync) / median(asArchives), "times", 1);
}

void watch(const std::string& qrd, const fs::path& folder, const fs::path& library) {
    std::vector<double> alone;
    std::vector<double> watched;
    std::vector<double> lags;
    for (int round = 0; round < rounds; ++round) {
        alone.push_back(syncOnce(qrd, folder, library, true).seconds);
        watched.push_back(watchedSyncOnce(qrd, folder, library, lags));
    }
    row("coordinated sync while four pages watch, beside it alone", median(watched) / median(alone), "times", 1.03);
    std::ranges::sort(lags);
    row("a change of it reaches a page meanwhile, 95 of 100", lags[lags.size() * 95 / 100], "ms", 200);
    row("a change of it reaches a page meanwhile, the longest", lags.back(), "ms", 200);
}

void sync100(const std::string& qrd, const fs::path& folder) {
    constexpr int apps = 100;
    const fs::path library = folder / "library";
    fs::create_directories(library);
    for (int number = 0; number < apps; ++number) {
        addApp(library, number, 2'800'000, 57, 20'000);
    }
    compareWithUnpackers(qrd, folder, library);
    compareWithPackages(qrd, folder, library);
    watch(qrd, folder, library);
}

void syncOneLarge(const std::string& qrd, const fs::path& folder) {
    const fs::path library = folder / "library";
    fs::create_directories(library);
    addApp(library, 0, 2'000'000, 2'000, 280'000); // about half of it compresses
    std::vector<double> sync;
    std::vector<double> unzip;
    std::vector<double> peak;
    for (int round = 0; round < rounds; ++round) {
        const Measured measured = syncOnce(qrd, folder, library, true);
        sync.push_back(measured.seconds);
        peak.push_back(measured.peakMegabytes);
        unzip.push_back(unzipOnce(folder, library));
    }
    std::printf("one archive of %.0f MB with 2000 entries: sync %.2f s, unzip -q %.2f s\n",
                static_cast<double>(fs::file_size(filesIn(library).front())) / 1e6, median(sync), median(unzip));
    row("coordinated sync of it, wall time beside unzip -q", median(sync) / median(unzip), "times", 0.45);
    row("its peak memory", median(peak), "MB", 100);
}

fs::path smallLibrary(const fs::path& folder, int apps) {
    fs::path library = folder / ("small" + std::to_string(apps)) / "library";
    fs::create_directories(library);
    for (int number = 0; number < apps; ++number) {
        addApp(library, number, 6'000, 2, 1'500);
    }
    return library;
}

void syncSmall(const std::string& qrd, const fs::path& folder) {
    const auto anApp = [](const std::vector<double>& seconds, int apps) { return median(seconds) * 1000 / apps; };
    constexpr int few = 1000;
    constexpr int many = 4000;
    std::vector<double> writes;
    std::vector<double> syncFew;
    std::vector<double> syncMany;
    std::vector<double> least;
    std::vector<double> unzip;
    fs::path library = smallLibrary(folder, few);
    for (int round = 0; round < rounds; ++round) {
        writes.push_back(durableWrite(folder));
        syncFew.push_back(syncOnce(qrd, folder, library, true).seconds);
        least.push_back(floorOnce(qrd, folder, library));
        unzip.push_back(unzipOnce(folder, library));
    }
    std::printf("1000 archives of 10 KB: an app takes the least %.2f ms, unzip -q %.2f ms; a durable write of 64 KB "
                "takes %.2f ms\n",
                anApp(least, few), anApp(unzip, few), median(writes));
    row("coordinated sync of 1000 archives of 10 KB, time an app", anApp(syncFew, few), "ms", 2.4);
    library = smallLibrary(folder, many);
    for (int round = 0; round < rounds; ++round) {
        syncMany.push_back(syncOnce(qrd, folder, library, true).seconds);
    }
    row("coordinated sync of 4000 of them, time an app", anApp(syncMany, many), "ms", 1.25 * anApp(syncFew, few));
}

void writeList(const fs::path& path, const appsync::Value& list) {
    appsync::PropertyListCodec propertyLists;
    const auto bytes = propertyLists.dataWithPropertyList(list, appsync::PropertyListFormat::binary, nullptr);
    writeFile(path, std::string(bytes->bytes()));
}

/// A process starts with the peak memory of the one that started it: what needs much is done apart from this one.
void runApart(const auto& work) {
    const pid_t child = fork();
    if (child == 0) {
        work();
        std::_Exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        std::cerr << "cannot prepare what is to be measured\n";
        std::exit(1);
    }
}

/// A backup of apps with store metadata of 4 KB and icons of 10 KB.
void fillBackup(const fs::path& backup, int apps) {
    using appsync::Data;
    using appsync::Dictionary;
    std::mt19937 random(1);
    appsync::PropertyListCodec propertyLists;
    Dictionary info;
    for (int number = 0; number < apps; ++number) {
        const Dictionary metadata{{"title", "App " + std::to_string(number)},
                                  {"bundleVersion", "1.0"},
                                  {"filler", Data(content(4'000, random))}};
        info.set("com.example.bench.app" + std::to_string(number),
                 Dictionary{{"TamblinMetadata", *propertyLists.dataWithPropertyList(
                                                    metadata, appsync::PropertyListFormat::binary, nullptr)},
                            {"PlaceholderIcon", Data("\x89PNG\r\n\x1a\n" + content(10'000, random))}});
    }
    writeList(backup / "RestoreApplications.plist", info);
    writeList(backup / "DemotedApps.plist",
              Dictionary{{"AutomaticDowngrades", appsync::Array{}}, {"IntentionalDowngrades", appsync::Array{}}});
    writeList(backup / "IconState.plist", appsync::Array{});
}

void restoreMany(const std::string& qrd, const fs::path& folder) {
    constexpr int apps = 2000;
    const fs::path backup = folder / "backup";
    fs::create_directories(backup);
    runApart([&] { fillBackup(backup, apps); });
    for (const bool coordinated : {true, false}) {
        std::vector<double> seconds;
        std::vector<double> peak;
        for (int round = 0; round < rounds; ++round) {
            const fs::path device = newDevice(qrd, folder, coordinated);
            const Measured restore = run({qrd, "restore", device, "--from", backup, "--json"});
            seconds.push_back(restore.seconds);
            peak.push_back(restore.peakMegabytes);
        }
        row(coordinated ? "restore of 2000 apps through the coordinator, time an app"
                        : "restore of 2000 apps by the plug-in itself, time an app",
            median(seconds) * 1000 / apps, "ms", 3);
        row("its peak memory", median(peak), "MB", 200);
    }
}

} // namespace

int main(int count, char** words) {
    struct Part {
        std::string_view name;
        void (*measure)(const std::string& qrd, const fs::path& folder);
    };
    // First those with many small files, which mind most what others have written and removed.
    constexpr Part parts[] = {
        {"small", syncSmall}, {"restore", restoreMany}, {"large", syncOneLarge}, {"hundred", sync100}};
    const std::vector<std::string_view> chosen(words + std::min(count, 3), words + count);
    const auto isPart = [&](std::string_view name) { return std::ranges::count(parts, name, &Part::name) == 1; };
    if (count < 3 || !std::ranges::all_of(chosen, isPart)) {
        std::cerr << "usage: sync_bench QRD FOLDER [small] [restore] [large] [hundred]\n";
        return 2;
    }
    const fs::path folder = fs::absolute(words[2]);
    fs::remove_all(folder);
    for (const Part& part : parts) {
        if (!chosen.empty() && std::ranges::count(chosen, part.name) == 0) {
            continue;
        }
        const fs::path own = folder / part.name;
        fs::create_directories(own);
        keepFoldersApart(own);
        part.measure(words[1], own);
        std::fflush(stdout);
    }
    fs::remove_all(folder);
    return 0;
}
