#include "device/screen/AppBundles.h"

#include "archive/EntryPath.h"
#include "device/drawing/CairoImage.h"
#include "platform/FileSystem.h"
#include "platform/PropertyListSerialization.h"

#include <algorithm>

namespace appsync::device {

namespace {

/// The middle square of the picture, in the icon's size, cut to its shape.
CairoSurface drawIcon(cairo_surface_t* picture) {
    const double width = cairo_image_surface_get_width(picture);
    const double height = cairo_image_surface_get_height(picture);
    const double scale = iconSide / std::min(width, height);
    CairoSurface icon = makeSurface(iconSide, iconSide);
    const CairoContext context(cairo_create(icon.get()));
    roundedRectangle(context.get(), 0, 0, iconSide, iconSide, iconSide * iconCorner);
    cairo_translate(context.get(), (iconSide - width * scale) / 2, (iconSide - height * scale) / 2);
    cairo_scale(context.get(), scale, scale);
    cairo_set_source_surface(context.get(), picture, 0, 0);
    cairo_pattern_t* source = cairo_get_source(context.get());
    cairo_pattern_set_filter(source, CAIRO_FILTER_GOOD);
    cairo_pattern_set_extend(source, CAIRO_EXTEND_PAD);
    cairo_fill(context.get());
    return icon;
}

} // namespace

std::optional<Value> AppBundle::objectForInfoDictionaryKey(std::string_view key) noexcept {
    std::call_once(_loaded, [this] {
        const auto bytes = _files.readFile(_path + "/Info.plist", nullptr);
        const auto root = bytes ? _propertyLists.propertyListWithData(bytes->bytes(), nullptr) : std::nullopt;
        if (root && root->dictionary()) {
            _info = *root->dictionary();
        }
    });
    const Value* value = _info.find(key);
    return value ? std::optional<Value>(*value) : std::nullopt;
}

std::optional<std::string> AppBundle::executableName() noexcept {
    const auto named = objectForInfoDictionaryKey("BXBundleExecutable");
    const auto name = named ? named->string() : std::nullopt;
    const bool isInFolder = name && !name->empty() && name->find('/') == std::string_view::npos;
    return isInFolder ? std::optional<std::string>(*name) : std::nullopt;
}

std::shared_ptr<Bundle> AppBundles::bundleWithURL(const FileURL& url) noexcept {
    // A path that goes through something else than a folder leads nowhere.
    if (!_files.fileExists(url.path() + "/.")) {
        return nullptr;
    }
    return std::make_shared<AppBundle>(_files, _propertyLists, url.path());
}

std::shared_ptr<Image> DeviceIconRenderer::YKCreateDeviceAppropriateHomeScreenIconImageFromBundle(
    const std::shared_ptr<Bundle>& bundle) noexcept {
    const auto app = std::dynamic_pointer_cast<AppBundle>(bundle);
    const auto name = app ? app->objectForInfoDictionaryKey("BXBundleIconFile") : std::nullopt;
    const auto file = name ? name->string() : std::nullopt;
    if (!file || !isSafePath(*file, {})) {
        return nullptr;
    }
    return iconFromFile(app->path() + "/" + std::string(*file));
}

std::shared_ptr<Image> DeviceIconRenderer::iconFromFile(const std::string& path) noexcept {
    const auto information = _files.attributesOfItem(path, nullptr);
    if (!information || information->size > maxIconFileSize) {
        return nullptr;
    }
    const auto bytes = _files.readFile(path, nullptr);
    const CairoSurface picture = bytes ? surfaceFromPNG(bytes->bytes()) : nullptr;
    if (!picture) {
        return nullptr;
    }
    return std::make_shared<CairoImage>(drawIcon(picture.get()));
}

} // namespace appsync::device
