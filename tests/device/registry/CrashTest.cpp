// The process ends anywhere in an operation; the device is opened again and everything is whole.
#include "RegistryFixture.h"

#include <sys/wait.h>

#include <atomic>
#include <functional>

namespace appsync::device {
namespace {

class Crash : public testing::Test {
  protected:
    static constexpr const char* identifier = "org.example.app";

    static void putArchive(OpenDevice& device, const std::string& version) {
        const std::string bytes = ArchiveBuilder()
                                      .app("Name", identifier, version)
                                      .file("Name.app/deep/file", "deep " + version)
                                      .file("TamblinMetadata.plist", "metadata " + version)
                                      .bytes();
        ASSERT_TRUE(device.files().createFile("/var/mobile/Media/app.zip", bytes, {}));
    }
    static Result<void> install(OpenDevice& device) {
        ArchiveRequest request;
        request.archivePath = "/var/mobile/Media/app.zip";
        request.identifier = identifier;
        return device.registry->installArchive(request);
    }
    static PlaceholderRequest placeholder(const std::string& name) {
        PlaceholderRequest request;
        request.identifier = identifier;
        request.info = {{"BXBundleDisplayName", name}};
        request.metadata = Data("metadata of " + name);
        return request;
    }

    /// Prepares a device, ends a process before the n-th change of `operation`, and checks what is found after opening
    /// the device again; for every n until the operation reaches its end. Answers how many changes it makes.
    int forEveryChange(const std::function<void(OpenDevice&)>& prepare,
                       const std::function<bool(OpenDevice&)>& operation,
                       const std::function<void(OpenDevice&, bool ended)>& check) {
        for (int change = 0;; ++change) {
            SCOPED_TRACE("ended before change " + std::to_string(change));
            const TemporaryFolder folder;
            {
                OpenDevice device(folder.path());
                prepare(device);
            }
            const pid_t child = ::fork();
            if (child == 0) {
                const auto faults = std::make_shared<ArmedFaults>(change);
                OpenDevice device(folder.path(), faults);
                const bool settled = bool(device.registry->settle());
                faults->arm();
                ::_exit(settled && operation(device) ? 0 : 1);
            }
            int status = 0;
            EXPECT_EQ(::waitpid(child, &status, 0), child);
            const bool ended = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            EXPECT_TRUE(ended || EndingFaults::hasEnded(status)) << status;
            OpenDevice device(folder.path());
            const auto settled = device.registry->settle();
            EXPECT_TRUE(settled) << errorText(settled.error());
            checkFolders(device);
            check(device, ended);
            if (ended || HasFailure()) {
                return change;
            }
        }
    }

  private:
    /// Kills the process like `EndingFaults`, counting from `arm`.
    class ArmedFaults final : public FaultPoint {
      public:
        explicit ArmedFaults(int endAt) : _faults(endAt) {}
        void arm() { _isArmed = true; }
        int before(std::string_view operation, std::string_view path) noexcept override {
            return _isArmed ? _faults.before(operation, path) : 0;
        }

      private:
        EndingFaults _faults;
        std::atomic<bool> _isArmed = false;
    };

    /// Every container belongs to an app, and nothing is left of the interrupted operation.
    static void checkFolders(OpenDevice& device) {
        std::size_t records = 0;
        for (const Application& app : device.registry->applications()) {
            EXPECT_TRUE(device.files().fileExists(app.bundlePath + "/Info.plist"));
            records += (app.isInstalled ? 1U : 0U) + (app.isPlaceholder ? 1U : 0U);
        }
        EXPECT_EQ(device.files().list("/var/containers/Bundle/Application")->size(), records);
        EXPECT_EQ(device.files().list("/var/containers/Bundle/.staging")->size(), 0U);
    }
};

std::string content(OpenDevice& device, const std::string& path) {
    const auto data = device.files().readFile(path, nullptr);
    return data ? std::string(data->bytes()) : "(missing)";
}

void expectWhole(OpenDevice& device, const std::string& version) {
    const auto app = device.registry->application("org.example.app");
    ASSERT_TRUE(app && app->isInstalled);
    EXPECT_EQ(app->version, version);
    EXPECT_EQ(content(device, app->bundlePath + "/Name"), "executable of org.example.app " + version);
    EXPECT_EQ(content(device, app->bundlePath + "/deep/file"), "deep " + version);
    EXPECT_EQ(content(device, app->containerPath + "/TamblinMetadata.plist"), "metadata " + version);
}

TEST_F(Crash, InFirstInstallLeavesThePlaceholderOrTheApp) {
    const int changes = forEveryChange(
        [](OpenDevice& device) {
            ASSERT_TRUE(device.registry->installPlaceholder(placeholder("Waiting")));
            putArchive(device, "1.0");
        },
        [](OpenDevice& device) { return bool(install(device)); },
        [](OpenDevice& device, bool ended) {
            const auto app = device.registry->application(identifier);
            ASSERT_TRUE(app);
            EXPECT_NE(app->isInstalled, app->isPlaceholder) << "the app takes its placeholder's place in one step";
            EXPECT_TRUE(app->isInstalled || !ended);
            if (app->isInstalled) {
                expectWhole(device, "1.0");
            } else {
                EXPECT_EQ(content(device, app->containerPath + "/TamblinMetadata.plist"), "metadata of Waiting");
            }
        });
    EXPECT_GT(changes, 15);
}

TEST_F(Crash, InUpdateLeavesTheOldVersionOrTheNewWhole) {
    const int changes = forEveryChange(
        [](OpenDevice& device) {
            putArchive(device, "1.0");
            ASSERT_TRUE(install(device));
            ASSERT_TRUE(device.registry->installPlaceholder(placeholder("Updating")));
            putArchive(device, "2.0");
        },
        [](OpenDevice& device) { return bool(install(device)); },
        [](OpenDevice& device, bool ended) {
            const bool isNew = !device.registry->hasPlaceholder(identifier);
            EXPECT_TRUE(isNew || !ended);
            expectWhole(device, isNew ? "2.0" : "1.0");
            EXPECT_TRUE(install(device)) << "the device works on";
            expectWhole(device, "2.0");
        });
    EXPECT_GT(changes, 20);
}

TEST_F(Crash, InPlaceholderLeavesTheOldOneOrTheNew) {
    const int changes = forEveryChange(
        [](OpenDevice& device) { ASSERT_TRUE(device.registry->installPlaceholder(placeholder("Old"))); },
        [](OpenDevice& device) { return bool(device.registry->installPlaceholder(placeholder("New"))); },
        [](OpenDevice& device, bool ended) {
            const auto app = device.registry->application(identifier);
            ASSERT_TRUE(app && app->isPlaceholder);
            EXPECT_TRUE(app->name == "New" || !ended);
            EXPECT_EQ(content(device, app->containerPath + "/TamblinMetadata.plist"), "metadata of " + app->name);
        });
    EXPECT_GT(changes, 6);
}

TEST_F(Crash, InRemovalLeavesTheAppWholeOrNothingOfIt) {
    const int changes = forEveryChange(
        [](OpenDevice& device) {
            putArchive(device, "1.0");
            ASSERT_TRUE(install(device));
            ASSERT_TRUE(device.files().createDirectory(device.registry->application(identifier)->dataContainerPath +
                                                           "/Documents",
                                                       true, std::nullopt, nullptr));
        },
        [](OpenDevice& device) {
            return bool(device.registry->uninstall(identifier, RemovalReason::person, RemovalScope::everything));
        },
        [](OpenDevice& device, bool ended) {
            const std::string data = "/var/mobile/Containers/Data/Application/" + std::string(identifier);
            const bool isThere = device.registry->isInstalled(identifier);
            EXPECT_FALSE(isThere && ended);
            EXPECT_EQ(device.files().fileExists(data), isThere);
            EXPECT_EQ(device.registry->TevrinLookupUninstalled(nullptr)->contains(identifier), !isThere);
            if (isThere) {
                expectWhole(device, "1.0");
            }
        });
    EXPECT_GT(changes, 8);
}

TEST_F(Crash, WhileSettlingIsSettledTheNextTime) {
    const int changes = forEveryChange(
        [](OpenDevice& device) {
            putArchive(device, "1.0");
            ASSERT_TRUE(install(device));
        },
        [](OpenDevice& device) {
            // What an interrupted run would have left.
            for (const std::string path :
                 {"/var/containers/Bundle/.staging/A/Name.app/deep", "/var/containers/Bundle/Application/B/Name.app"}) {
                if (!device.files().createDirectory(path, true, std::nullopt, nullptr)) {
                    return false;
                }
            }
            return bool(device.registry->settle());
        },
        [](OpenDevice& device, bool) { expectWhole(device, "1.0"); });
    EXPECT_GT(changes, 8);
}

} // namespace
} // namespace appsync::device
