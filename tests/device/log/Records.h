// What stands in a transaction log.
#pragma once

#include "device/log/TransactionLog.h"

#include <stdexcept>
#include <vector>

namespace appsync::device {

inline std::vector<TransactionRecord> recordsOf(TransactionLog& log,
                                                std::optional<std::string_view> bundleID = std::nullopt) {
    std::vector<TransactionRecord> records;
    const auto visited = log.visit(
        [&](const TransactionRecord& record) {
            records.push_back(record);
            return true;
        },
        bundleID);
    if (!visited) {
        throw std::runtime_error(errorText(visited.error()));
    }
    return records;
}

} // namespace appsync::device
