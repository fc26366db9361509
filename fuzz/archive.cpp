// Any bytes as an archive of the app "com.example.a": an app, or an error that says why not; nothing outside the
// folder.
#include "archive/ArchiveLimits.h"
#include "device/archive/Extraction.h"
#include "device/archive/UnpackingPlaces.h"
#include "files/Descriptor.h"
#include "fuzz/Fuzz.h"
#include "propertylist/Codec.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;
using appsync::Descriptor;
using appsync::fuzz::expect;
using appsync::fuzz::require;

/// A folder with a container in it, in memory where there is a file system for that.
class Place {
  public:
    Place() {
        std::string pattern = (fs::exists("/dev/shm") ? "/dev/shm" : "/tmp") + std::string("/fuzz.XXXXXX");
        _path = ::mkdtemp(pattern.data());
        fs::create_directory(_path / "container");
        container = Descriptor(::open((_path / "container").c_str(), O_PATH | O_DIRECTORY));
    }
    ~Place() {
        std::error_code ignored;
        fs::remove_all(_path, ignored);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    [[nodiscard]] bool holdsNothingElse() const {
        return std::distance(fs::directory_iterator(_path), fs::directory_iterator()) == 1;
    }
    [[nodiscard]] bool hasApp(const std::string& bundle) const {
        return fs::is_regular_file(_path / "container" / bundle / "Info.plist");
    }
    Descriptor container;

  private:
    fs::path _path;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const Descriptor file(::memfd_create("archive", MFD_CLOEXEC));
    require(::write(file.get(), bytes, size) == static_cast<ssize_t>(size) && ::lseek(file.get(), 0, SEEK_SET) == 0,
            "a file for the input");
    appsync::PropertyListCodec propertyLists;
    appsync::ArchiveLimits limits;
    limits.unpackedBytes = 1 << 20; // enough to find what there is, and quick
    limits.freeBytes = 1 << 20;
    limits.listBytes = 1 << 16;
    const Place place;
    appsync::device::ExtractionRequest request;
    request.archive = file.get();
    request.archivePath = "/archive";
    request.identifier = "com.example.a";
    static appsync::device::UnpackingPlaces places;
    const auto extracted =
        appsync::device::extractApplication(request, place.container.get(), limits, propertyLists, places, nullptr);
    expect(place.holdsNothingElse(), "nothing is written outside of the container");
    if (extracted) {
        expect(place.hasApp(extracted->bundleName), "an app that was accepted is there");
    }
    return 0;
}
