// How long durable installs take.
//
//   install_bench [FOLDER]      works below FOLDER (default: the temporary directory), which must be on a real disk
//
// Ordinary apps: 100 archives of 60 files and 4 MB unpacked, installed from 10 threads as the sync does, against
// `unzip -q` of the same archives one after another, which waits for no disk. Small apps: 1,000 archives of 10 KB.
// Both are alternated over several rounds, with the disk idle before each. Then a registry of 5,000 apps.
#include "device/database/Database.h"
#include "device/registry/ApplicationWorkspace.h"
#include "device/registry/Registry.h"
#include "device/root/Root.h"
#include "propertylist/Codec.h"

#include <archive.h>
#include <archive_entry.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace appsync::device {
namespace {

constexpr int rounds = 5;
constexpr unsigned installThreads = 10;

template <class T> T required(Result<T> result) {
    if (!result) {
        std::fprintf(stderr, "%s\n", errorText(result.error()).c_str());
        std::exit(1);
    }
    return std::move(*result);
}

double secondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

/// Content that compresses about as well as code does.
std::string makeContent(std::size_t size, std::mt19937& random) {
    std::string content;
    content.reserve(size + 64);
    while (content.size() < size) {
        if (content.size() > 1'000 && random() % 3 != 0) {
            content.append(content, random() % (content.size() - 64), 16 + random() % 32);
        } else {
            for (int count = 0; count < 16; ++count) {
                content += static_cast<char>(random());
            }
        }
    }
    content.resize(size);
    return content;
}

struct AppShape {
    std::size_t files = 0;
    std::size_t fileSize = 0;
    std::size_t binarySize = 0;
};

void addFile(archive* writer, const std::string& path, const std::string& content, mode_t mode) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, path.c_str());
    archive_entry_set_filetype(entry, AE_IFREG);
    archive_entry_set_perm(entry, mode);
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    archive_write_header(writer, entry);
    archive_write_data(writer, content.data(), content.size());
    archive_entry_free(entry);
}

std::string identifierOf(int number) {
    return "org.example.app" + std::to_string(number);
}

void writeArchive(const std::string& path, int number, const AppShape& shape, std::mt19937& random) {
    PropertyListCodec codec;
    const Dictionary info{{"BXBundleIdentifier", identifierOf(number)},
                          {"BXBundleVersion", "1.0"},
                          {"BXBundleExecutable", "App"},
                          {"BXBundleDisplayName", "App " + std::to_string(number)}};
    archive* writer = archive_write_new();
    archive_write_set_format_zip(writer);
    archive_write_open_filename(writer, path.c_str());
    addFile(writer, "App.app/Info.plist",
            std::string(codec.dataWithPropertyList(info, PropertyListFormat::binary, nullptr)->bytes()), 0644);
    addFile(writer, "App.app/App", makeContent(shape.binarySize, random), 0755);
    for (std::size_t file = 2; file < shape.files; ++file) {
        const std::string folder = file % 3 == 0 ? "en.lproj/" : file % 3 == 1 ? "Images/" : "";
        addFile(writer, "App.app/" + folder + "file" + std::to_string(file),
                makeContent(shape.fileSize / 2 + random() % shape.fileSize, random), 0644);
    }
    archive_write_close(writer);
    archive_write_free(writer);
}

void unzip(const std::string& archive, const std::string& folder) {
    const char* const arguments[] = {"unzip", "-q", archive.c_str(), "-d", folder.c_str(), nullptr};
    pid_t child = 0;
    int status = 0;
    if (posix_spawnp(&child, "unzip", nullptr, nullptr, const_cast<char* const*>(arguments), environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0) {
        std::fprintf(stderr, "unzip failed; is it installed?\n");
        std::exit(1);
    }
}

struct Device {
    explicit Device(const std::string& folder)
        : root(required(Root::create(folder))), database(required(Database::open(*root))),
          registry(required(Registry::open(*root, *database, codec))) {}

    PropertyListCodec codec;
    std::unique_ptr<Root> root;
    std::unique_ptr<Database> database;
    std::unique_ptr<Registry> registry;
};

/// Installs all archives, each durable when its call returns.
void installAll(Device& device, int count) {
    std::atomic<int> next = 0;
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < installThreads; ++thread) {
        threads.emplace_back([&] {
            for (int number = next++; number < count; number = next++) {
                ArchiveRequest request;
                request.archivePath = "/var/mobile/Media/" + std::to_string(number) + ".zip";
                request.identifier = identifierOf(number);
                if (const auto installed = device.registry->installArchive(request); !installed) {
                    std::fprintf(stderr, "%s\n", errorText(installed.error()).c_str());
                    std::exit(1);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void compare(const std::string& folder, const char* title, int count, const AppShape& shape) {
    std::mt19937 random(1);
    const std::string archives = folder + "/archives";
    std::filesystem::create_directories(archives);
    std::uintmax_t packed = 0;
    for (int number = 0; number < count; ++number) {
        const std::string path = archives + "/" + std::to_string(number) + ".zip";
        writeArchive(path, number, shape, random);
        packed += std::filesystem::file_size(path);
    }
    std::printf("%s: %d archives, %.0f KB each\n", title, count,
                static_cast<double>(packed) / static_cast<double>(count) / 1e3);
    std::vector<double> ratios;
    std::vector<double> each;
    for (int round = 0; round < rounds; ++round) {
        Device device(folder + "/device");
        for (int number = 0; number < count; ++number) {
            const std::string name = std::to_string(number) + ".zip";
            std::filesystem::copy_file(archives + "/" + name, folder + "/device/var/mobile/Media/" + name);
        }
        std::filesystem::create_directories(folder + "/unzipped");
        double unzipTime = 0;
        double installTime = 0;
        const auto measureUnzip = [&] {
            ::sync();
            unzipTime = secondsOf([&] {
                for (int number = 0; number < count; ++number) {
                    unzip(archives + "/" + std::to_string(number) + ".zip",
                          folder + "/unzipped/" + std::to_string(number));
                }
            });
        };
        const auto measureInstall = [&] {
            ::sync();
            installTime = secondsOf([&] { installAll(device, count); });
        };
        if (round % 2 == 0) {
            measureUnzip();
            measureInstall();
        } else {
            measureInstall();
            measureUnzip();
        }
        ratios.push_back(installTime / unzipTime);
        each.push_back(installTime / count);
        std::printf("  round %d: installed in %.3f s (%.2f ms each), unzip %.3f s, ratio %.2f\n", round + 1,
                    installTime, installTime / count * 1e3, unzipTime, installTime / unzipTime);
        std::filesystem::remove_all(folder + "/unzipped");
        std::filesystem::remove_all(folder + "/device");
    }
    std::printf("  median: %.2f ms each, ratio %.2f\n", median(each) * 1e3, median(ratios));
    std::filesystem::remove_all(archives);
}

void measureRegistry(const std::string& folder, int count) {
    double registering = 0;
    {
        Device device(folder + "/device");
        registering = secondsOf([&] {
            for (int number = 0; number < count; ++number) {
                PlaceholderRequest request;
                request.identifier = identifierOf(number);
                request.info = {{"BXBundleDisplayName", "App"}, {"BXBundleVersion", "1.0"}};
                (void)device.registry->installPlaceholder(request);
            }
        });
    }
    Device* opened = nullptr;
    const double opening = secondsOf([&] { opened = new Device(folder + "/device"); });
    const std::unique_ptr<Device> device(opened);
    const double settling = secondsOf([&] {
        if (const auto settled = device->registry->settle(); !settled) {
            (void)required(Result<bool>(settled.error()));
        }
    });
    ApplicationWorkspace workspace(*device->registry);
    int seen = 0;
    const double enumerating = secondsOf([&] {
        workspace.enumerateBundlesOfType_block(PDBundleTypeAll, [&](const PDApplicationProxyPtr& proxy, bool&) {
            seen += proxy->isPlaceholder() ? 1 : 0;
        });
    });
    constexpr int lookups = 100'000;
    const double lookingUp = secondsOf([&] {
        for (int lookup = 0; lookup < lookups; ++lookup) {
            seen += workspace.applicationProxyForIdentifier_placeholder(identifierOf(lookup % count), true) ? 1 : 0;
        }
    });
    const double snapshot = secondsOf([&] { seen += static_cast<int>(device->registry->applications().size()); });
    std::printf(
        "A registry of %d apps (%d seen):\n  a placeholder is registered in %.2f ms, the device opened in %.1f ms, "
        "settled in %.1f ms\n  all apps enumerated in %.2f ms, a snapshot for the home screen takes %.2f ms, one "
        "look-up %.2f us\n",
        count, seen, registering / count * 1e3, opening * 1e3, settling * 1e3, enumerating * 1e3, snapshot * 1e3,
        lookingUp / lookups * 1e6);
}

void run(const std::string& below) {
    std::string folder = below + "/install-bench-XXXXXX";
    if (!::mkdtemp(folder.data())) {
        std::perror(folder.c_str());
        std::exit(1);
    }
    compare(folder, "Ordinary apps", 100, {60, 17'000, 3'000'000});
    compare(folder, "Small apps", 1'000, {4, 3'000, 8'000});
    measureRegistry(folder, 5'000);
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace appsync::device

int main(int argc, char** argv) {
    appsync::device::run(argc > 1 ? argv[1] : std::filesystem::temp_directory_path().string());
}
