// A device root in a folder of its own, with its database, for one test.
#pragma once

#include "device/database/Database.h"
#include "device/root/Root.h"
#include "tests/device/root/TemporaryFolder.h"

#include <memory>

namespace appsync::device {

class OpenRoot {
  public:
    OpenRoot() { open(); }

    void open(std::shared_ptr<FaultPoint> faultPoint = nullptr) {
        root = std::move(*Root::create(folder.path(), {faultPoint}));
        database = std::move(*Database::open(*root));
    }
    /// As when the process ends and another one starts.
    void reopen(std::shared_ptr<FaultPoint> faultPoint = nullptr) {
        database.reset();
        root.reset();
        open(std::move(faultPoint));
    }
    [[nodiscard]] DeviceFileSystem& files() { return root->files(); }

    TemporaryFolder folder;
    std::unique_ptr<Root> root;
    std::unique_ptr<Database> database;
};

} // namespace appsync::device
