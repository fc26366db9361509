// What the coordinated installs, updates and restores share.
#pragma once

#include "platform/TransactionLog.h"
#include "values/Error.h"

#include <cstdint>
#include <string_view>

namespace appsync {

/// Codes of the errors of `QRErrorDomain` that the plug-in makes.
enum class QRErrorCode : std::int64_t {
    installPreparationFailed = 1,
    cancelledByUser = 2,
    restoreFailed = 29,
    promiseNotAttached = 30,
    leftOutstanding = 30,
};

namespace coordination {

/// The install target type of every coordinated install and restore.
inline constexpr std::uint32_t installTargetType = 1;

/// The reason that a cancellation carries.
inline ErrorPtr cancellation(QRErrorCode code) {
    return Error::make(QRErrorDomain, static_cast<std::int64_t>(code));
}

inline void logStep(AITransactionLog& log, TransactionStep step, TransactionPhase phase, bool success,
                    std::string_view bundleIdentifier, std::string_view description) {
    log.logStep_byParty_phase_success_forBundleID_description(step, TransactionParty::syncPlugIn, phase, success,
                                                              bundleIdentifier, description);
}

} // namespace coordination
} // namespace appsync
