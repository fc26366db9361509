#include "desktop/SyncList.h"

namespace appsync::desktop {

Array toDoRecords(const SyncList& list) {
    Array records;
    records.reserve(list.removals.size() + list.installs.size());
    for (const std::string& identifier : list.removals) {
        records.emplace_back(Dictionary{{"identifier", identifier}, {"operation", "remove"}});
    }
    for (const AppArchive* app : list.installs) {
        Dictionary record{{"identifier", app->identifier}, {"operation", "install"}};
        if (app->version) {
            record.set("version", *app->version);
        }
        if (app->name) {
            record.set("name", *app->name);
        }
        record.set("size", app->size);
        records.emplace_back(std::move(record));
    }
    return records;
}

} // namespace appsync::desktop
