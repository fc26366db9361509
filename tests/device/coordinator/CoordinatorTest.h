// A device with its registry and install coordinator, and a client of the coordinator that acts as the plug-in does.
#pragma once

#include "device/coordinator/InstallCoordinator.h"
#include "device/coordinator/InstallObservers.h"
#include "device/registry/Registry.h"
#include "propertylist/Codec.h"
#include "tests/device/services/OpenRoot.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace appsync::device {

using Lines = std::vector<std::string>;

// The apps that the tests install.
inline const std::string A = "com.example.a";
inline const std::string B = "com.example.b";

/// A delegate that writes down what it is told.
class Reports final : public KXAppInstallObserverDelegate {
  public:
    void coordinatorShouldPrioritize(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinatorDidInstallPlaceholder(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept override;
    void coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator, const ErrorPtr& reason,
                                               KXClientIdentifier client) noexcept override;
    void promiseDidBeginFulfillmentWithIdentifier(std::uint64_t promise) noexcept override;

    [[nodiscard]] Lines lines() const;
    /// What was told since the last call.
    [[nodiscard]] Lines take();
    /// Runs within each call, after it was written down.
    std::function<void(const std::string& line)> during;

  private:
    void _note(std::string line);
    mutable std::mutex _mutex;
    Lines _lines;
};

/// Stops the threads that are about to make a certain change to the disk until they are let go.
class Gate final : public FaultPoint {
  public:
    Gate(std::string operation, std::string partOfPath)
        : _operation(std::move(operation)), _partOfPath(std::move(partOfPath)) {}
    int before(std::string_view operation, std::string_view path) noexcept override;

    /// From now on such changes are stopped.
    void close();
    /// Returns when so many have come to the gate since it was closed; the paths of their changes.
    Lines waitForArrivals(std::size_t count);
    void waitForArrival() { (void)waitForArrivals(1); }
    /// Lets one of those who wait go on.
    void letOnePass();
    void open();

  private:
    const std::string _operation;
    const std::string _partOfPath;
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _isClosed = false;
    std::size_t _passes = 0;
    Lines _arrivals;
};

/// What a client holds of one app's install.
struct Preparation {
    KXAppInstallCoordinatorPtr coordinator;
    KXPromisedTransferToPathPtr asset;
    KXPlaceholderPtr placeholder;
    std::string icon; // path of the icon file
};

class CoordinatorTest : public testing::Test {
  protected:
    CoordinatorTest() { open(); }
    ~CoordinatorTest() override { close(); }

    void open(const std::shared_ptr<FaultPoint>& faultPoint = nullptr);
    void close();
    /// As when the process ends and another one starts; the observer connects unless told otherwise.
    void reopen(const std::shared_ptr<FaultPoint>& faultPoint = nullptr, bool resumes = true);
    void connect();

    template <class Class>
    [[nodiscard]] auto lookUp(Class& kind, const std::string& bundleID, bool create,
                              KXClientIdentifier client = KXClientSyncHost, ErrorPtr* error = nullptr) {
        return kind.coordinatorForAppWithBundleID_withClientID_createIfNotExisting_created_error(
            bundleID, client, create, nullptr, error);
    }
    [[nodiscard]] KXAppInstallCoordinatorPtr find(const std::string& bundleID) {
        return lookUp(classes().coordinators, bundleID, false);
    }
    [[nodiscard]] CoordinatorClasses classes() { return coordinator->classes(); }

    /// A placeholder that lacks nothing but being attached, with an icon file if wanted.
    [[nodiscard]] KXPlaceholderPtr makePlaceholder(const std::string& bundleID, bool withIcon = true);
    /// All that is needed of an install but the app's file.
    [[nodiscard]] Preparation prepare(const std::string& bundleID, bool isUpdate = false);
    /// Hands the file over.
    static void deliver(const Preparation& app, const std::string& path);
    /// Prepares, delivers and waits.
    void install(const std::string& bundleID, const std::string& version = "1.0");

    /// Writes an app's archive where received files stand; answers its path. Its folder is "<name>.app".
    std::string makeArchive(const std::string& bundleID, const std::string& version = "1.0",
                            const std::string& name = "App");
    std::string makeFile(const std::string& path, const std::string& content);
    [[nodiscard]] bool exists(const std::string& path) { return device.files().fileExists(path); }
    [[nodiscard]] std::string iconFolder(const std::string& bundleID) const {
        return "/tmp/com.zuvex.qrd.Apps/" + bundleID + ".app";
    }
    /// Rows of a table.
    [[nodiscard]] std::int64_t rowsIn(const std::string& table);
    [[nodiscard]] std::int64_t allRows();
    /// Everything is over: no rows, no files, no coordinator.
    void expectNothingLeftOf(const std::string& bundleID);

    OpenRoot device;
    PropertyListCodec propertyLists;
    Reports reports;
    std::unique_ptr<Registry> registry;
    std::unique_ptr<InstallCoordinator> coordinator;
    std::shared_ptr<KXAppInstallObserver> connection;
};

} // namespace appsync::device
