// App bundles on disk, the icon renderer and image encoding.
#pragma once

#include "values/FileURL.h"
#include "values/PropertyList.h"

#include <memory>
#include <optional>
#include <string_view>

namespace appsync {

/// An app's folder with its "Info.plist".
class Bundle {
  public:
    virtual ~Bundle() = default;
    /// A value of the bundle's Info dictionary; nullopt when it has none of that name.
    [[nodiscard]] virtual std::optional<Value> objectForInfoDictionaryKey(std::string_view key) noexcept = 0;
};

class BundleClass {
  public:
    virtual ~BundleClass() = default;
    /// The bundle at a folder; null when there is no folder. A missing or unreadable Info file counts as an empty one.
    [[nodiscard]] virtual std::shared_ptr<Bundle> bundleWithURL(const FileURL& url) noexcept = 0;
};

/// A picture in memory; its form is the renderer's own.
class Image {
  public:
    virtual ~Image() = default;
};

class IconRenderer {
  public:
    virtual ~IconRenderer() = default;
    /// The app's icon in the size and shape of this device's home screen; null when the bundle has no usable icon.
    [[nodiscard]] virtual std::shared_ptr<Image>
    YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(const std::shared_ptr<Bundle>& bundle) noexcept = 0;
};

/// Collects images and encodes them.
class ImageDestination {
  public:
    virtual ~ImageDestination() = default;
    virtual void addImage(const std::shared_ptr<Image>& image) noexcept = 0;
    /// The encoded bytes; nullopt when images are missing or cannot be encoded. Called once.
    [[nodiscard]] virtual std::optional<Data> finalize() noexcept = 0;
};

class ImageDestinationClass {
  public:
    virtual ~ImageDestinationClass() = default;
    /// `type` is a type identifier such as "public.png"; null when it is not known.
    [[nodiscard]] virtual std::unique_ptr<ImageDestination> destinationWithType_count(std::string_view type,
                                                                                      std::size_t count) noexcept = 0;
};

} // namespace appsync
