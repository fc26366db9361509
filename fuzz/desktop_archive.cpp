// Any bytes as an archive of a library: an app with an identifier that can name it, and small files that go with it, or
// a sentence that names the archive.
#include "archive/AppInArchive.h"
#include "desktop/AppArchive.h"
#include "files/Descriptor.h"
#include "fuzz/Fuzz.h"
#include "propertylist/Codec.h"
#include "values/BundleIdentifier.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>

namespace {

namespace desktop = appsync::desktop;
using appsync::fuzz::expect;
using appsync::fuzz::require;

void expectSentence(const appsync::ErrorPtr& error, const std::string& path) {
    expect(error && appsync::errorText(error).find(path) != std::string::npos, "a refusal names its archive");
}

void expectBounded(const desktop::AppDescription& app) {
    const appsync::ArchiveLimits limits;
    expect(app.infoPlist.bytes().size() <= limits.listBytes, "the Info.plist is bounded");
    expect(!app.metadata || app.metadata->bytes().size() <= limits.listBytes, "the metadata is bounded");
    expect(!app.artwork || app.artwork->bytes().size() <= limits.pictureBytes, "the artwork is bounded");
    expect(app.icon.has_value() == app.iconName.has_value(), "an icon has its name");
    expect(!app.icon || app.icon->bytes().size() <= limits.pictureBytes, "the icon is bounded");
    expect(!app.iconName || app.iconName->find('/') == std::string::npos, "the icon stands beside the Info.plist");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const appsync::Descriptor file(::memfd_create("archive", MFD_CLOEXEC));
    require(::write(file.get(), bytes, size) == static_cast<ssize_t>(size), "a file for the input");
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    appsync::PropertyListCodec propertyLists;
    const auto app = desktop::readAppArchive(path, propertyLists);
    if (!app) {
        expectSentence(app.error(), path);
        return 0;
    }
    expect(appsync::isBundleIdentifier(app->identifier), "an app has an identifier that can name it");
    expect(app->size == size, "the archive's size is known");
    if (const auto description = desktop::readAppDescription(*app, propertyLists)) {
        expectBounded(*description);
    } else {
        expectSentence(description.error(), path);
    }
    return 0;
}
