// Makes several installs durable together: those that are ready while the disk is busy share its next turn.
#pragma once

#include "device/database/Database.h"
#include "values/Result.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace appsync::device {

class DeviceFileSystem;

/// Any thread.
class GroupCommit {
  public:
    GroupCommit(DeviceFileSystem& files, Database& database) : _files(files), _database(database) {}
    GroupCommit(const GroupCommit&) = delete;
    GroupCommit& operator=(const GroupCommit&) = delete;

    /// First makes durable what the caller has written to files, then runs `write` in a transaction and makes that
    /// durable. Returns when this has happened, or why it has not: then nothing of the transaction stands.
    [[nodiscard]] Result<void> commit(std::function<void(Database::Transaction&)> write);

  private:
    struct Request {
        std::function<void(Database::Transaction&)> write;
        bool isDone = false;
        ErrorPtr error;
    };
    [[nodiscard]] ErrorPtr _commit(const std::vector<Request*>& group);

    DeviceFileSystem& _files;
    Database& _database;
    std::mutex _mutex; // guards the rest
    std::condition_variable _turnEnded;
    std::vector<Request*> _waiting;
    bool _isBusy = false;
};

} // namespace appsync::device
