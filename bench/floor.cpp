// The least that installing a library can take: as many threads as the machine has cores copy each archive, inflate its
// entries, check their sums, write their files as fast as the device does, and remove the copy; at the end everything
// is made durable at once. No registry, no confinement, no progress, no undoing. What a sync takes is measured beside
// it.
//
// Usage: floor LIBRARY FOLDER      FOLDER is made and filled; the archives are trusted.
#include "archive/ArchiveFile.h"
#include "archive/ArchiveLimits.h"
#include "archive/InstallerError.h"
#include "archive/ZipDirectory.h"
#include "files/Descriptor.h"
#include "files/Syscalls.h"
#include "values/Error.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using appsync::Descriptor;
using appsync::ZipDirectory;

[[noreturn]] void fail(const std::string& sentence) {
    std::cerr << "floor: " << sentence << '\n';
    std::_Exit(1);
}

void writeFile(const fs::path& path, std::string_view bytes) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file.isOpen() || appsync::writeDirectly(file.get(), bytes) != 0) {
        fail("cannot write " + path.string());
    }
}

void readFile(const fs::path& path, std::string& bytes) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    bytes.resize(fs::file_size(path));
    if (::read(file.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        fail("cannot read " + path.string());
    }
}

class Unpacker {
  public:
    void unpack(const fs::path& archive, const fs::path& folder) {
        readFile(archive, _bytes);
        fs::create_directories(folder);
        const fs::path copy = folder / "archive";
        writeFile(copy, _bytes);
        const Descriptor descriptor(::open(copy.c_str(), O_RDONLY | O_CLOEXEC));
        const std::string name = copy.string();
        const appsync::Refusal refusal(name);
        auto file = appsync::ArchiveFile::open(descriptor.get(), refusal, _memory);
        const auto directory = file ? ZipDirectory::read(*file, {}, refusal) : file.error();
        if (!directory) {
            fail(directory.error()->description());
        }
        fs::path made;
        for (const ZipDirectory::Entry& entry : directory->entries()) {
            const fs::path path = folder / entry.path;
            const fs::path needed = entry.kind == ZipDirectory::Kind::folder ? path : path.parent_path();
            if (made != needed) {
                fs::create_directories(needed);
                made = needed;
            }
            if (entry.kind != ZipDirectory::Kind::folder) {
                writeFile(path, _content(entry));
            }
        }
        fs::remove(copy);
    }

  private:
    std::string_view _content(const ZipDirectory::Entry& entry) {
        const std::size_t header = entry.start;
        const auto lengthAt = [&](std::size_t at) {
            return static_cast<unsigned char>(_bytes[header + at]) +
                   256U * static_cast<unsigned char>(_bytes[header + at + 1]);
        };
        constexpr std::size_t headerSize = 30; // then the name and further fields, whose lengths end it
        const char* const packed = _bytes.data() + header + headerSize + lengthAt(26) + lengthAt(28);
        std::string_view content(packed, entry.packedBytes);
        if (entry.isDeflated) {
            char* const unpacked = _memory.content.grow(entry.unpackedBytes);
            if (libdeflate_deflate_decompress(_memory.inflater(), packed, entry.packedBytes, unpacked,
                                              entry.unpackedBytes, nullptr) != LIBDEFLATE_SUCCESS) {
                fail("an entry cannot be inflated");
            }
            content = {unpacked, entry.unpackedBytes};
        }
        if (libdeflate_crc32(0, content.data(), content.size()) != entry.checksum) {
            fail("an entry has another checksum");
        }
        return content;
    }

    appsync::ArchiveMemory _memory;
    std::string _bytes; // of the archive; kept, so that its memory is taken once
};

} // namespace

int main(int count, char** words) {
    if (count != 3) {
        std::cerr << "usage: floor LIBRARY FOLDER\n";
        return 2;
    }
    const fs::path folder = words[2];
    fs::create_directories(folder);
    std::vector<fs::path> archives;
    std::ranges::copy(fs::directory_iterator(words[1]), std::back_inserter(archives));
    std::atomic<std::size_t> next = 0;
    const auto work = [&] {
        Unpacker unpacker;
        for (std::size_t i = next++; i < archives.size(); i = next++) {
            unpacker.unpack(archives[i], folder / std::to_string(i));
        }
    };
    std::vector<std::jthread> workers;
    for (unsigned i = std::thread::hardware_concurrency(); i > 0; --i) {
        workers.emplace_back(work);
    }
    workers.clear(); // waits for them
    const Descriptor whole(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ::syncfs(whole.get()) == 0 ? 0 : 1;
}
