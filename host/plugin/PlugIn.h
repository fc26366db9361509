// A plug-in bundle: a folder with an "Info.plist" that names the shared object beside it.
#pragma once

#include "values/Result.h"

#include <memory>
#include <string>
#include <string_view>

namespace appsync {
class PropertyListSerialization;
class QRClient;
struct Platform;
} // namespace appsync

namespace appsync::host {

/// Domain of the host's own errors; the description says what, where and what to do.
inline constexpr std::string_view hostErrorDomain = "SyncHost";

/// A loaded bundle; its clients must go before it does. Its code stays in the process for what clients leave behind.
class PlugIn {
  public:
    [[nodiscard]] static Result<PlugIn> load(const std::string& bundlePath, PropertyListSerialization& propertyLists);
    /// The bundle that is delivered with this program: beside it, or in `lib/appsync` next to its folder.
    [[nodiscard]] static std::string defaultPath();

    [[nodiscard]] const std::string& identifier() const noexcept { return _identifier; }
    /// A new client; an error when the plug-in is made for another version of the platform, or could not make one.
    [[nodiscard]] Result<std::unique_ptr<QRClient>> createClient(const Platform& platform) const;

  private:
    struct Unload {
        void operator()(void* handle) const;
    };
    PlugIn(std::string identifier, std::unique_ptr<void, Unload> handle, void* create);

    std::string _identifier;
    std::unique_ptr<void, Unload> _handle;
    void* _create;
};

/// An error of `hostErrorDomain` with its sentence.
[[nodiscard]] ErrorPtr hostError(std::string_view description, std::string_view path = {});

} // namespace appsync::host
