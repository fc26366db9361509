#include "device/registry/GroupCommit.h"

#include "device/root/DeviceFileSystem.h"

namespace appsync::device {

Result<void> GroupCommit::commit(std::function<void(Database::Transaction&)> write) {
    Request own{std::move(write), false, nullptr};
    std::unique_lock lock(_mutex);
    _waiting.push_back(&own);
    _turnEnded.wait(lock, [&] { return own.isDone || !_isBusy; });
    if (own.isDone) {
        return own.error;
    }
    // The first who finds the disk idle works for all who wait by then.
    _isBusy = true;
    std::vector<Request*> group;
    group.swap(_waiting);
    lock.unlock();
    ErrorPtr error = _commit(group);
    lock.lock();
    for (Request* request : group) {
        request->isDone = true;
        request->error = error;
    }
    _isBusy = false;
    _turnEnded.notify_all();
    return error;
}

ErrorPtr GroupCommit::_commit(const std::vector<Request*>& group) {
    if (const auto synced = _files.sync(); !synced) {
        return synced.error();
    }
    Database::Transaction transaction(_database, Durability::durable);
    for (const Request* request : group) {
        request->write(transaction);
    }
    return transaction.commit().error();
}

} // namespace appsync::device
