// Unpacks the app of an archive into a new container.
#pragma once

#include "archive/AppInArchive.h"
#include "archive/ArchiveLimits.h"
#include "device/root/DiskRoom.h"
#include "device/root/FaultPoint.h"
#include "values/PropertyList.h"
#include "values/Result.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>

namespace appsync {
class PropertyListSerialization;
class Timeline;
} // namespace appsync

namespace appsync::device {

class UnpackingPlaces;

using appsync::artworkFileName;
using appsync::metadataFileName;
using appsync::sinfFileName;

struct ExtractionRequest {
    int archive = -1;                     // open for reading
    std::string archivePath;              // for messages
    std::string identifier;               // of the app that the archive must hold
    DiskRoom::Share* room = nullptr;      // to be taken; null: there is enough
    std::function<void(double)> progress; // 0 to 1, by one thread at a time; may be empty
    std::stop_token cancel;
    bool wantsMetadata = true;    // false: the archive's store metadata is left out
    Timeline* timeline = nullptr; // may be null
};

struct ExtractedApplication {
    std::string bundleName; // "<Name>.app"
    Dictionary info;        // content of its Info.plist
    std::optional<Data> metadata;
    std::uint64_t bytes = 0; // of the files in the app's folder
};

/// Unpacks into an empty folder, whose content is to be thrown away after an error. An archive is refused unless every
/// check has passed: its directory (`ZipDirectory`), its entries against that, their checksums, links that stay in the
/// app, and the app's identity. Nothing is durable yet. Any number of calls may run at once; each waits for one of the
/// places, and a large archive takes those that nobody else needs.
[[nodiscard]] Result<ExtractedApplication> extractApplication(const ExtractionRequest& request, int container,
                                                              const ArchiveLimits& limits,
                                                              PropertyListSerialization& propertyLists,
                                                              UnpackingPlaces& places, FaultPoint* faultPoint);

} // namespace appsync::device
