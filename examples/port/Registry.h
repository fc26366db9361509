// Fourth: the registry, the heart of a port: installed apps, placeholders, and the progress of installs under way.
//
// An archive of this device is no more than the app's Info dictionary, as the bytes of a property list. It is kept as
// the Info.plist of an app's folder, which is all that this device has of an app.
#pragma once

#include "Observers.h"
#include "platform/FileSystem.h"
#include "platform/PropertyListSerialization.h"
#include "values/Result.h"

#include <map>
#include <set>

namespace port {

struct App {
    std::string identifier;
    std::optional<std::string> version = {};
    std::uint64_t installType = PDInstallTypeNone;
    bool isPlaceholder = false;
    bool isSystem = false;
    std::uint64_t size = 0;      // bytes
    FNProgressPtr progress = {}; // of the install under way

    /// The folder around the app's own.
    std::string container() const { return (isPlaceholder ? "/placeholders/" : "/apps/") + identifier; }
};

class Registry final : public PDApplicationWorkspace,
                       public PDApplicationWorkspaceClass,
                       public PDApplicationProxyClass {
  public:
    Registry(FileSystem& files, PropertyListSerialization& propertyLists)
        : _files(files), _propertyLists(propertyLists) {}

    /// Has an app from the start, without a folder.
    void put(App app);
    /// What a person does on the home screen.
    void cancel(const std::string& identifier);
    /// Tells the observers which installs are under way.
    void tellInstalls();

    PDApplicationWorkspace& defaultWorkspace() noexcept override { return *this; }
    PDApplicationProxyPtr applicationProxyForIdentifier_placeholder(std::string_view bundleIdentifier,
                                                                    bool placeholder) noexcept override;
    void addObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override;
    void removeObserver(PDApplicationWorkspaceObserverProtocol* observer) noexcept override;
    bool applicationIsInstalled(std::string_view bundleIdentifier) noexcept override;
    bool installApplication_withOptions_error(const FileURL& url, const Dictionary& options,
                                              ErrorPtr* error) noexcept override;
    bool installApplication_withOptions(const FileURL& url, const Dictionary& options) noexcept override;
    bool uninstallApplication_withOptions(std::string_view bundleIdentifier,
                                          const Dictionary* options) noexcept override;
    FNProgressPtr installProgressForApplication_withPhase(const PDApplicationProxyPtr& application,
                                                          std::uint64_t phase) noexcept override;
    void installPhaseFinishedForProgress(const FNProgressPtr& progress) noexcept override;
    void enumerateBundlesOfType_block(
        std::uint64_t type,
        const std::function<void(const PDApplicationProxyPtr&, bool& stop)>& block) noexcept override;

  private:
    using Apps = std::map<std::string, App, std::less<>>;

    Result<void> _install(const FileURL& url, const Dictionary& options);
    Result<App> _read(const FileURL& url, const std::string& identifier, bool isPlaceholder);
    /// The proxy of an app or placeholder; null when there is none.
    PDApplicationProxyPtr _proxy(const Apps& apps, std::string_view identifier);
    void _removeFrom(Apps& apps, const std::string& identifier);
    /// The call that tells an observer which installs are under way now.
    Observers::Call _installs();

    FileSystem& _files;
    PropertyListSerialization& _propertyLists;
    std::mutex _mutex;
    Apps _installed;
    Apps _placeholders;
    std::map<std::string, FNProgressPtr, std::less<>> _progress;
    std::set<std::string, std::less<>> _underWay; // installs that have begun
    Observers _observers;
};

} // namespace port
