// Unpacks archives for tests into a folder of this machine.
#pragma once

#include "archive/InstallerError.h"
#include "desktop/AppArchive.h"
#include "device/archive/Extraction.h"
#include "device/archive/UnpackingPlaces.h"
#include "files/Descriptor.h"
#include "propertylist/Codec.h"

#include "../root/Faults.h"
#include "../root/TemporaryFolder.h"
#include "ArchiveBuilder.h"

#include <fcntl.h>

#include <optional>

namespace appsync::device {

class ExtractionTest : public testing::Test {
  protected:
    static constexpr const char* identifier = "org.example.app";

    /// Unpacks the bytes as an archive into a new folder.
    Result<ExtractedApplication> extract(const std::string& archive, FaultPoint* faultPoint = nullptr) {
        writeHostFile(folder / "app.zip", archive);
        const Descriptor file(::open((folder / "app.zip").c_str(), O_RDONLY | O_CLOEXEC));
        std::filesystem::remove_all(folder / "container");
        std::filesystem::create_directory(folder / "container");
        const Descriptor container(::open((folder / "container").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        request.archive = file.get();
        return extractApplication(request, container.get(), limits, codec, *places,
                                  faultPoint ? faultPoint : faults.get());
    }
    /// The code with which an archive is refused; 0 when it is not.
    std::int64_t refusalOf(const std::string& archive) {
        const auto result = extract(archive);
        readOnDesktop(result);
        if (result) {
            return 0;
        }
        reason = errorText(result.error());
        EXPECT_EQ(result.error()->domain(), TVInstallerErrorDomain);
        EXPECT_EQ(result.error()->userInfo().string(errorPathKey), request.archivePath);
        EXPECT_NE(reason.find(request.archivePath), std::string::npos) << reason;
        return result.error()->code();
    }
    /// What the device takes the desktop can send; what it cannot read has its sentence.
    void readOnDesktop(const Result<ExtractedApplication>& onDevice) {
        const std::string path = folder / "app.zip";
        const auto app = desktop::readAppArchive(path, codec);
        const auto description =
            app ? desktop::readAppDescription(*app, codec) : Result<desktop::AppDescription>(app.error());
        if (description) {
            EXPECT_FALSE(description->infoPlist.bytes().empty());
        } else {
            EXPECT_NE(errorText(description.error()).find(path), std::string::npos) << errorText(description.error());
            EXPECT_FALSE(onDevice) << errorText(description.error());
        }
    }
    [[nodiscard]] std::string content(const std::string& path) const {
        return readHostFile(folder / ("container/" + path));
    }
    [[nodiscard]] bool exists(const std::string& path) const {
        return std::filesystem::exists(std::filesystem::symlink_status(folder / ("container/" + path)));
    }
    static ArchiveBuilder app() { return ArchiveBuilder().app("Name", identifier); }
    static std::int64_t code(InstallerError error) { return static_cast<std::int64_t>(error); }

    TemporaryFolder folder;
    PropertyListCodec codec;
    ArchiveLimits limits;
    std::shared_ptr<RecordingFaults> faults = std::make_shared<RecordingFaults>();
    std::optional<UnpackingPlaces> places{std::in_place, 3};
    ExtractionRequest request{-1, "/var/mobile/Media/app.zip", identifier, nullptr, {}, {}, true};
    std::string reason;
};

} // namespace appsync::device
