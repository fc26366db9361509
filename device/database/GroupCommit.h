// Makes several installs durable together: those that are ready while the disk is busy share its next turn.
#pragma once

#include "concurrency/SharedTurns.h"
#include "device/database/Database.h"
#include "device/root/DeviceFileSystem.h"

#include <functional>
#include <vector>

namespace appsync::device {

/// Any thread.
class GroupCommit {
  public:
    GroupCommit(DeviceFileSystem& files, Database& database) : _files(files), _database(database) {}

    /// First makes durable what the caller has written to files, then runs `write` in a transaction and makes that
    /// durable. Returns when this has happened, or why it has not. Then the transaction has no effect, unless the
    /// database failed (`DatabaseError::failed`): that may have been after it reached the disk.
    [[nodiscard]] Result<void> commit(const std::function<void(Database::Transaction&)>& write) {
        Request own{write, {}};
        _turns.join(own, [this](const std::vector<Request*>& group) {
            const auto outcome = _commit(group);
            for (Request* request : group) {
                request->outcome = outcome;
            }
        });
        return own.outcome;
    }

  private:
    struct Request {
        const std::function<void(Database::Transaction&)>& write;
        Result<void> outcome;
    };
    [[nodiscard]] Result<void> _commit(const std::vector<Request*>& group) {
        if (auto synced = _files.sync(); !synced) {
            return synced;
        }
        Database::Transaction transaction(_database, Durability::durable);
        for (const Request* request : group) {
            request->write(transaction);
        }
        return transaction.commit();
    }

    DeviceFileSystem& _files;
    Database& _database;
    SharedTurns<Request> _turns;
};

} // namespace appsync::device
