#include "device/database/GroupCommit.h"

#include "device/root/DeviceFileSystem.h"

namespace appsync::device {

Result<void> GroupCommit::commit(const std::function<void(Database::Transaction&)>& write) {
    Request own{write, false, {}};
    if (const Group group = _takeTurn(own); !group.empty()) {
        _endTurn(group, _commit(group));
    }
    return own.outcome;
}

GroupCommit::Group GroupCommit::_takeTurn(Request& own) {
    const Lock lock(_mutex);
    _waiting.push_back(&own);
    while (!own.isDone && _isBusy) {
        _turnEnded.wait(_mutex);
    }
    if (own.isDone) {
        return {};
    }
    // The first who finds the disk idle works for all who wait by then.
    _isBusy = true;
    return std::exchange(_waiting, {});
}

void GroupCommit::_endTurn(const Group& group, const Result<void>& outcome) {
    const Lock lock(_mutex);
    for (Request* request : group) {
        request->outcome = outcome;
        request->isDone = true;
    }
    _isBusy = false;
    _turnEnded.notifyAll();
}

Result<void> GroupCommit::_commit(const Group& group) {
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
