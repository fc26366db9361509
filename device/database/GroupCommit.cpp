#include "device/database/GroupCommit.h"

#include "device/root/DeviceFileSystem.h"

namespace appsync::device {

Result<void> GroupCommit::commit(const std::function<void(Database::Transaction&)>& write) {
    Request own{write, {}};
    _turns.join(own, [this](const std::vector<Request*>& group) {
        const auto outcome = _commit(group);
        for (Request* request : group) {
            request->outcome = outcome;
        }
    });
    return own.outcome;
}

Result<void> GroupCommit::_commit(const std::vector<Request*>& group) {
    if (auto synced = _files.sync(); !synced) {
        return synced;
    }
    Database::Transaction transaction(_database, Durability::durable);
    for (const Request* request : group) {
        request->write(transaction);
    }
    return transaction.commit();
}

} // namespace appsync::device
