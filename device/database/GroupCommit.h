// Makes several installs durable together: those that are ready while the disk is busy share its next turn.
#pragma once

#include "concurrency/Mutex.h"
#include "device/database/Database.h"

#include <functional>
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
    /// durable. Returns when this has happened, or why it has not. Then the transaction has no effect, unless the
    /// database failed (`DatabaseError::failed`): that may have been after it reached the disk.
    [[nodiscard]] Result<void> commit(const std::function<void(Database::Transaction&)>& write) EXCLUDES(_mutex);

  private:
    struct Request {
        const std::function<void(Database::Transaction&)>& write;
        bool isDone = false;
        Result<void> outcome;
    };
    using Group = std::vector<Request*>;
    /// Waits for a turn of the request's own, and takes all who wait by then. Empty when another's turn served it.
    [[nodiscard]] Group _takeTurn(Request& own) EXCLUDES(_mutex);
    void _endTurn(const Group& group, const Result<void>& outcome) EXCLUDES(_mutex);
    [[nodiscard]] Result<void> _commit(const Group& group);

    DeviceFileSystem& _files;
    Database& _database;
    Mutex _mutex;
    Condition _turnEnded;
    Group _waiting GUARDED_BY(_mutex);
    bool _isBusy GUARDED_BY(_mutex) = false;
};

} // namespace appsync::device
