#include "tests/device/coordinator/CoordinatorTest.h"

#include "tests/device/archive/ArchiveBuilder.h"

namespace appsync::device {

namespace {

std::string nameOf(const KXAppInstallCoordinatorPtr& coordinator) {
    return *coordinator->bundleID();
}

std::string codeOf(const ErrorPtr& error) {
    return error->domain() + " " + std::to_string(error->code());
}

} // namespace

void Reports::_note(std::string line) {
    {
        const std::lock_guard lock(_mutex);
        _lines.push_back(line);
    }
    if (during) {
        during(line);
    }
}

Lines Reports::lines() const {
    const std::lock_guard lock(_mutex);
    return _lines;
}

Lines Reports::take() {
    const std::lock_guard lock(_mutex);
    return std::exchange(_lines, {});
}

void Reports::coordinatorShouldPrioritize(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    _note("prioritize " + nameOf(coordinator));
}

void Reports::coordinatorDidInstallPlaceholder(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    _note("placeholder " + nameOf(coordinator));
}

void Reports::coordinatorDidCompleteSuccessfully(const KXAppInstallCoordinatorPtr& coordinator) noexcept {
    const ErrorPtr error = coordinator->error();
    _note("completed " + nameOf(coordinator) + (error ? " with " + codeOf(error) : ""));
}

void Reports::coordinator_canceledWithReason_client(const KXAppInstallCoordinatorPtr& coordinator,
                                                    const ErrorPtr& reason, KXClientIdentifier client) noexcept {
    _note("cancelled " + nameOf(coordinator) + " by " + std::to_string(client) + " with " + codeOf(reason));
}

void Reports::promiseDidBeginFulfillmentWithIdentifier(std::uint64_t promise) noexcept {
    _note("promise " + std::to_string(promise));
}

int Gate::before(std::string_view operation, std::string_view path) noexcept {
    std::unique_lock lock(_mutex);
    if (_isClosed && operation == _operation && path.find(_partOfPath) != std::string_view::npos) {
        _arrivals.emplace_back(path);
        _changed.notify_all();
        _changed.wait(lock, [this] { return !_isClosed || _passes > 0; });
        _passes -= _isClosed ? 1 : 0;
    }
    return 0;
}

void Gate::close() {
    const std::lock_guard lock(_mutex);
    _isClosed = true;
    _arrivals.clear();
}

Lines Gate::waitForArrivals(std::size_t count) {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [&] { return _arrivals.size() >= count; });
    return _arrivals;
}

void Gate::letOnePass() {
    const std::lock_guard lock(_mutex);
    ++_passes;
    _changed.notify_all();
}

void Gate::open() {
    const std::lock_guard lock(_mutex);
    _isClosed = false;
    _changed.notify_all();
}

void CoordinatorTest::open(const std::shared_ptr<FaultPoint>& faultPoint) {
    if (faultPoint) {
        device.reopen(faultPoint);
    }
    registry = std::move(*Registry::open(*device.root, *device.database, propertyLists));
    ASSERT_TRUE(registry->settle());
    coordinator =
        std::move(*InstallCoordinator::open({device.files(), *registry, *device.database, propertyLists}, true));
    connect();
    coordinator->resume();
}

void CoordinatorTest::close() {
    connection.reset();
    coordinator.reset();
    registry.reset();
}

void CoordinatorTest::reopen(const std::shared_ptr<FaultPoint>& faultPoint, bool resumes) {
    close();
    device.reopen(faultPoint);
    registry = std::move(*Registry::open(*device.root, *device.database, propertyLists));
    ASSERT_TRUE(registry->settle());
    coordinator =
        std::move(*InstallCoordinator::open({device.files(), *registry, *device.database, propertyLists}, true));
    connect();
    if (resumes) {
        coordinator->resume();
    }
}

void CoordinatorTest::connect() {
    connection = classes().observers.initWithMachServiceName_forClients_delegate(observerServiceName,
                                                                                 {KXClientSyncHost}, &reports);
    ASSERT_TRUE(connection);
}

KXPlaceholderPtr CoordinatorTest::makePlaceholder(const std::string& bundleID, bool withIcon) {
    auto placeholder = classes().placeholders.initAppPlaceholderWithBundleName_bundleID_installType_client(
        "Name of " + bundleID, bundleID, PDInstallTypeSync, KXClientSyncHost);
    if (withIcon) {
        const std::string icon = makeFile(iconFolder(bundleID) + "/Icon.png", "an icon");
        const auto promise = classes().transferPromises.initWithName_client_transferPath_diskSpaceNeeded(
            bundleID + "-Icon", KXClientSyncHost, *FileURL::fileURLWithPath(icon, false), 7);
        promise->setPercentComplete(1);
        promise->setComplete(true);
        EXPECT_TRUE(placeholder->setIconPromise_error(promise, nullptr));
    }
    auto attributes = KXPlaceholderAttributes::initWithInfoPlistDictionary(Dictionary{{"UIWendralApp", true}});
    attributes.setBundleVersion("0.9");
    EXPECT_TRUE(placeholder->setPlaceholderAttributes_error(attributes, nullptr));
    EXPECT_TRUE(placeholder->setMetadata_error(TVStoreMetadata{Dictionary{{"title", "T"}}}, nullptr));
    EXPECT_TRUE(placeholder->setConfigurationCompleteWithError(nullptr));
    return placeholder;
}

Preparation CoordinatorTest::prepare(const std::string& bundleID, bool isUpdate) {
    Preparation app;
    if (isUpdate) {
        app.coordinator = lookUp(classes().updatingCoordinators, bundleID, true);
    } else {
        app.coordinator = lookUp(classes().initiatingCoordinators, bundleID, true);
    }
    TVInstallOptions options;
    options.setTamblinMetadata(TVStoreMetadata{Dictionary{{"title", "T"}}});
    options.setRegistryInstallType(PDInstallTypeSync);
    options.setInstallTargetType(1);
    EXPECT_TRUE(app.coordinator->setInstallOptions_error(options, nullptr));
    EXPECT_TRUE(app.coordinator->setInitialODRAssetPromises_error({}, nullptr));
    app.asset =
        classes().transferPromises.initWithName_client_diskSpaceNeeded(bundleID + "-Asset", KXClientSyncHost, 0);
    EXPECT_TRUE(app.coordinator->setAppAssetPromise_error(app.asset, nullptr));
    app.placeholder = makePlaceholder(bundleID);
    app.icon = iconFolder(bundleID) + "/Icon.png";
    EXPECT_TRUE(app.coordinator->setPlaceholderPromise_error(app.placeholder, nullptr));
    return app;
}

void CoordinatorTest::deliver(const Preparation& app, const std::string& path) {
    app.asset->setTransferPath(FileURL::fileURLWithPath(path, false));
    app.asset->setPercentComplete(1);
    app.asset->setComplete(true);
}

void CoordinatorTest::install(const std::string& bundleID, const std::string& version) {
    deliver(prepare(bundleID), makeArchive(bundleID, version));
    coordinator->waitUntilIdle();
    ASSERT_TRUE(registry->isInstalled(bundleID));
    (void)reports.take();
}

std::string CoordinatorTest::makeArchive(const std::string& bundleID, const std::string& version,
                                         const std::string& name) {
    return makeFile("/var/mobile/Media/PublicStaging/" + bundleID + ".ipa",
                    ArchiveBuilder().app(name, bundleID, version).bytes());
}

std::string CoordinatorTest::makeFile(const std::string& path, const std::string& content) {
    EXPECT_TRUE(device.files().createDirectory(path.substr(0, path.rfind('/')), true, std::nullopt, nullptr));
    EXPECT_TRUE(device.files().createFile(path, content, {}));
    return path;
}

std::int64_t CoordinatorTest::rowsIn(const std::string& table) {
    Database::Transaction transaction(*device.database);
    auto rows = transaction.query("SELECT count(*) FROM " + table);
    return rows.next() ? rows.first<std::int64_t>() : -1;
}

std::int64_t CoordinatorTest::allRows() {
    return rowsIn("coordinator") + rowsIn("coordinatorPlaceholder") + rowsIn("coordinatorPromise");
}

void CoordinatorTest::expectNothingLeftOf(const std::string& bundleID) {
    EXPECT_EQ(find(bundleID), nullptr);
    EXPECT_EQ(allRows(), 0);
    EXPECT_FALSE(registry->hasPlaceholder(bundleID));
    EXPECT_FALSE(exists(iconFolder(bundleID)));
    EXPECT_FALSE(exists("/var/mobile/Media/PublicStaging/" + bundleID + ".ipa"));
}

} // namespace appsync::device
